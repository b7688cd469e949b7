'use strict';
// Clear Key's licence server: answers a licence request with the keys that are known.

/** "KID:KEY", 32 hexadecimal digits each, dashes as in a UUID allowed in KID: { id, key }; null: it is none. */
function parseKey(text) {
  const [id, key, ...more] = text.split(':');
  const digits = /^[0-9a-f]{32}$/i;
  const plainId = id.replace(/-/g, '');
  return more.length === 0 && digits.test(plainId) && digits.test(key) ? { id: plainId.toLowerCase(), key: key.toLowerCase() } : null;
}

const toBase64Url = hex => Buffer.from(hex, 'hex').toString('base64url');

/**
 * Answers the licence for a request, both JSON (EME, License Request Format and License Format).
 * missing(idHex) is told of a key that is not known.
 */
function answerRequest(request, keys, missing = () => {}) {
  const { kids, type } = JSON.parse(request);
  const wanted = kids.map(kid => Buffer.from(kid, 'base64url').toString('hex'));
  const found = keys.filter(({ id }) => wanted.includes(id));
  for (const id of wanted) if (!found.some(key => key.id === id)) missing(id);
  return JSON.stringify({ keys: found.map(({ id, key }) => ({ kty: 'oct', kid: toBase64Url(id), k: toBase64Url(key) })), type });
}

module.exports = { answerRequest, parseKey };
