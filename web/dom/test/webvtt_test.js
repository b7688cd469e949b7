'use strict';
// What becomes of files of cues, and of the <track> elements that name them.

const assert = require('node:assert');
const { test } = require('node:test');

const { JSDOM } = require('jsdom');

const { realmRequire } = require('../realm');
const { parseWebVtt } = require('../webvtt');

const file = (text) => `data:text/vtt,${encodeURIComponent(text)}`;
const oneCue = (text) => file(`WEBVTT\n\n00:01.000 --> 00:02.000\n${text}\n`);

test('a file: header, comments, names, times, text of several lines, every line end', () => {
  const text = ['\uFEFFWEBVTT Kind: x', 'Region: y', '', 'NOTE', 'no cue', '', 'STYLE', '::cue {}', '', 'name', '01:00:01.500-->02:00:02.000', 'one', 'two', '',
    '', '00:03.000 --> 00:04.000', 'three', '00:05.000 --> 00:06.000', ''].join('\r\n').replace('\uFEFF', '');
  assert.deepStrictEqual(parseWebVtt(text), [
    { id: 'name', startTime: 3601.5, endTime: 7202, settings: {}, text: 'one\ntwo' },
    { id: '', startTime: 3, endTime: 4, settings: {}, text: 'three' },
    { id: '', startTime: 5, endTime: 6, settings: {}, text: '' },
  ]);
  for (const none of ['', 'WEBVTTX\n\n', 'WEB', '{}']) assert.strictEqual(parseWebVtt(none), null);
});

test('times and settings that cannot be read', () => {
  const cues = (line) => parseWebVtt(`WEBVTT\n\n${line}\ntext\n\n00:09.000 --> 00:10.000\nnext`);
  for (const bad of ['00:60.000 --> 01:00.000', '0:01.000 --> 00:02.000', '00:01.00 --> 00:02.000', '00:01.0000 --> 00:02.000', '00:01.000 -> 00:02.000', '00:01.000 -->'])
    assert.deepStrictEqual(cues(bad).map(({ text }) => text), ['next'], bad);
  const settings = (text) => cues(`1:00:01.000 --> 1:00:02.000 ${text}`)[0].settings;
  assert.deepStrictEqual(settings('line:10%,end\tposition:20.5%,line-left size:30% align:left vertical:lr'),
    { snapToLines: false, line: 10, lineAlign: 'end', position: 20.5, positionAlign: 'line-left', size: 30, align: 'left', vertical: 'lr' });
  assert.deepStrictEqual(settings('line:-1'), { snapToLines: true, line: -1 });
  assert.deepStrictEqual(settings('line:1.% line:1,x line:--1 position:10 position:101% size:5 align:middle vertical:tb region toString:1 :'), {});
});

async function makePage(html) {
  const dom = new JSDOM('', { url: 'http://page.test/', runScripts: 'outside-only' });
  realmRequire(dom.window, { native: {}, log: () => {}, now: () => performance.now() })('./install.js').install();
  dom.window.document.body.innerHTML = html;
  return { window: dom.window, video: dom.window.document.querySelector('video') };
}

const settled = (element) => new Promise((resolve) => {
  for (const type of ['load', 'error']) element.addEventListener(type, () => resolve(type), { once: true });
});

test('<track default> is shown; src and mode decide what is loaded', async () => {
  const { video } = await makePage(`<video><track default src="${oneCue('first')}"><track src="${oneCue('second')}"></video>`);
  const [first, second] = video.children;
  assert.strictEqual(await settled(first), 'load');
  assert.deepStrictEqual([first.track.mode, first.readyState, first.track.cues[0].text], ['showing', 2, 'first']);
  assert.deepStrictEqual([second.track.mode, second.readyState, second.track.cues], ['disabled', 0, null]);

  second.track.mode = 'hidden';
  assert.strictEqual(await settled(second), 'load');
  assert.strictEqual(second.track.cues[0].text, 'second');
  second.src = oneCue('third');
  assert.strictEqual(second.track.cues.length, 0);
  assert.strictEqual(await settled(second), 'load');
  assert.strictEqual(second.track.cues[0].text, 'third');
});

test('a file that cannot be had, or is none, is an error', async () => {
  const { video } = await makePage('<video><track></video>');
  const [element] = video.children;
  element.track.mode = 'hidden';
  for (const src of ['javascript:1', file('no cues'), 'http://other.test/cues.vtt', '']) {
    element.src = src;
    assert.strictEqual(await settled(element), 'error', src);
    assert.strictEqual(element.readyState, 3);
  }
});
