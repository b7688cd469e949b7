'use strict';
// PNG (RFC 2083) of a picture in memory.

const zlib = require('zlib');

function chunk(type, data) {
  const body = Buffer.concat([Buffer.from(type, 'latin1'), data]);
  const framed = Buffer.alloc(body.length + 8);
  framed.writeUInt32BE(data.length, 0);
  body.copy(framed, 4);
  framed.writeUInt32BE(zlib.crc32(body), body.length + 4);
  return framed;
}

/** rgba: 4 bytes a pixel, rows without padding. */
function encodePng({ width, height, rgba }) {
  const header = Buffer.alloc(13);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  header.set([8, 6, 0, 0, 0], 8); // 8 bits a sample, RGBA, no filter method but 0, not interlaced
  const stride = width * 4;
  const rows = Buffer.alloc((stride + 1) * height); // each begins with its filter, 0: none
  for (let row = 0; row < height; ++row) rows.set(rgba.subarray(row * stride, (row + 1) * stride), row * (stride + 1) + 1);
  const signature = Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]);
  return Buffer.concat([signature, chunk('IHDR', header), chunk('IDAT', zlib.deflateSync(rows)), chunk('IEND', Buffer.alloc(0))]);
}

module.exports = { encodePng };
