'use strict';
// Servers that are slow, stall, break connections or have not got it; licences that come late; a stream
// that is longer than what a source buffer holds.
// Usage: network_test.js STREAMS CORPUS

const { test } = require('node:test');
const { assert, manifests, until, withPlayer } = require('./support');

const isSegment = (path, number) => path.endsWith(`${String(number).padStart(5, '0')}.m4s`) || path.endsWith(`_${number - 1}.m4s`);

for (const player of ['shaka', 'dash', 'hls']) {
  test(`${player}: a segment that comes late is waited for, and no picture is lost`, async () => {
    let serve;
    const held = new Promise(resolve => { serve = resolve; });
    const plan = ({ path }) => (isSegment(path, 4) ? { delay: held } : null);
    await withPlayer(player, { manifest: manifests[player].clear, plan }, async playing => {
      const { video } = playing;
      await playing.plays();
      await until('waits for the segment', () => playing.count('waiting') > 0 && video.currentTime > 2.5);
      const stoodAt = video.currentTime;
      assert.ok(stoodAt < 3.3, `waited at ${stoodAt}`);
      serve();
      await playing.reaches(stoodAt + 1);
      await playing.showsItsTime();
      await playing.showedEveryPicture();
    });
  });

  test(`${player}: a 404, an answer that breaks off and a slow server are overcome`, async () => {
    const plan = ({ path, count }) => {
      if (isSegment(path, 2) && count === 0) return { status: 404 };
      if (isSegment(path, 3) && count === 0) return { cutAt: 3000 };
      return /m4s$/.test(path) ? { rate: 400e3 } : null;
    };
    await withPlayer(player, { manifest: manifests[player].clear, plan }, async playing => {
      await playing.reaches(3.3);
      await playing.showsItsTime();
      assert.equal(playing.video.error, null);
    });
  });

  test(`${player}: a licence that comes late begins with the first picture`, async () => {
    await withPlayer(player, { manifest: manifests[player].protected, withKeys: true, licenceDelay: 1.5 }, async playing => {
      await until('the licence is sent', () => {
        assert.equal(playing.pictures(), 0, 'pictures before their key');
        return playing.licences() > 0;
      });
      await playing.plays(1);
      await playing.showsItsTime();
      await playing.showedEveryPicture();
    });
  });
}

test('a stream of ten minutes plays through a buffer of some seconds', async () => {
  const quota = { video: 600e3, audio: 100e3 }; // about 8 s
  const period = index => `<Period start="PT${index * 12}S" duration="PT12S">
    <AdaptationSet contentType="video"><Representation id="0" mimeType="video/mp4" codecs="avc1.4d4015" bandwidth="600000" width="512" height="288">
      <SegmentTemplate timescale="1" duration="1" startNumber="1" initialization="dash/init-stream0.m4s" media="dash/chunk-stream0-$Number%05d$.m4s"/></Representation></AdaptationSet>
    <AdaptationSet contentType="audio"><Representation id="2" mimeType="audio/mp4" codecs="mp4a.40.2" bandwidth="96000" audioSamplingRate="48000">
      <SegmentTemplate timescale="1" duration="1" startNumber="1" initialization="dash/init-stream2.m4s" media="dash/chunk-stream2-$Number%05d$.m4s"/></Representation></AdaptationSet></Period>`;
  const manifest = `<?xml version="1.0"?><MPD xmlns="urn:mpeg:dash:schema:mpd:2011" profiles="urn:mpeg:dash:profile:isoff-live:2011" type="static"
    mediaPresentationDuration="PT600S" minBufferTime="PT2S">${Array.from({ length: 50 }, (_, index) => period(index)).join('')}</MPD>`;
  await withPlayer('shaka', { manifest: 'long.mpd', pages: { '/long.mpd': manifest }, quota }, async playing => {
    const { video } = playing;
    await playing.plays();
    for (const target of [10, 100, 250, 400, 595]) {
      video.currentTime = target;
      await until(`is at ${target}`, () => !video.seeking && video.currentTime >= target);
      await playing.plays(target === 595 ? 0.5 : 2);
      const held = playing.web.buffered().reduce((sum, [start, end]) => sum + end - start, 0);
      assert.ok(held < 20, `${held} s are held`);
    }
    await playing.ends();
    assert.ok(Math.abs(video.currentTime - 600) < 0.2, `ended at ${video.currentTime}`);
  });
});
