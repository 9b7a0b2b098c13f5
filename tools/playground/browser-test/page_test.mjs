// End-to-end test of the playground page in headless Chromium.
//
// Starts the playground server on a free port, opens its page, drags a
// rectangle with real mouse events, downloads the mask with the page's button
// and compares it byte for byte with segment_photo's mask.png for the same
// rectangle (both are written by OpenCV's PNG encoder with default settings),
// brushes a background stroke, undoes and redoes, and saves a screenshot.
//
// node page_test.mjs --playground BIN --segment-photo BIN --photo PNG --out DIR
//   [--rect X1,Y1,X2,Y2] [--measure]   (--measure: only time rectangles)
// Environment: CHROMIUM (default /usr/bin/chromium).
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));

function fail(message) {
  console.error('page_test: FAIL: ' + message);
  process.exit(1);
}

function check(condition, message) {
  if (!condition) throw new Error(message);
  console.log('page_test: ok: ' + message);
}

const args = {};
for (let i = 2; i < process.argv.length; i++) {
  const a = process.argv[i];
  if (a === '--measure') args.measure = true;
  else if (a.startsWith('--') && i + 1 < process.argv.length) args[a.slice(2)] = process.argv[++i];
  else fail('unknown argument ' + a);
}
for (const need of ['playground', 'photo', 'out']) {
  if (!args[need]) fail('missing --' + need);
}
if (!args.measure && !args['segment-photo']) fail('missing --segment-photo');
const rect = (args.rect || '65,50,485,392').split(',').map(Number);

const chromium = process.env.CHROMIUM || '/usr/bin/chromium';
if (!existsSync(chromium)) {
  fail(`no Chromium at ${chromium}: install Debian's chromium (scripts/setup.sh does)`);
}
let puppeteer;
try {
  puppeteer = createRequire(import.meta.url)('puppeteer-core');
} catch (e) {
  fail(`puppeteer-core is not installed in ${here}: run scripts/setup.sh (npm ci there)`);
}

const out = path.resolve(args.out);
const downloads = path.join(out, 'downloads');
rmSync(out, { recursive: true, force: true });
mkdirSync(downloads, { recursive: true });

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// The reference: segment_photo with the same rectangle.
let reference = null;
if (!args.measure) {
  const ref = spawnSync(args['segment-photo'],
    [args.photo, '--rect', rect.join(','), '-o', path.join(out, 'reference')],
    { encoding: 'utf8' });
  if (ref.status !== 0) fail('segment_photo failed: ' + ref.stderr + ref.stdout);
  reference = readFileSync(path.join(out, 'reference', 'mask.png'));
}

// The server, on a free port; it prints its address.
const server = spawn(args.playground, [args.photo, '--port', '0'],
  { stdio: ['ignore', 'pipe', 'inherit'] });
const url = await new Promise((resolve, reject) => {
  let text = '';
  const timer = setTimeout(() => reject(new Error('the server printed no address')), 60000);
  server.stdout.on('data', (d) => {
    text += d;
    const m = /http:\/\/127\.0\.0\.1:\d+\//.exec(text);
    if (m) { clearTimeout(timer); resolve(m[0]); }
  });
  server.on('exit', (code) => reject(new Error('the server exited with ' + code)));
}).catch((e) => fail(e.message));
console.log('page_test: server at ' + url);

const userDir = path.join(out, 'chromium-profile');
const browser = await puppeteer.launch({
  executablePath: chromium,
  headless: true,
  userDataDir: userDir,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync',
  ],
  defaultViewport: { width: 1280, height: 800 },
});

let failed = null;
try {
  const page = await browser.newPage();
  const pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(e.message));
  const cdp = await page.createCDPSession();
  await cdp.send('Browser.setDownloadBehavior', { behavior: 'allow', downloadPath: downloads });
  await page.goto(url, { waitUntil: 'load' });
  await page.waitForSelector('#status[data-ready="1"]', { timeout: 60000 });
  const state = () => page.evaluate(() => window.playground.state);

  // Waits for the page to finish the next request; returns its status text.
  async function settled(seqBefore, timeout = 120000) {
    await page.waitForFunction((n) => window.playground.seq > n && !window.playground.busy,
      { timeout }, seqBefore);
    const info = await page.evaluate(() => ({
      text: document.getElementById('status').textContent,
      error: document.getElementById('status').dataset.error === '1',
    }));
    console.log('page_test: status: ' + info.text);
    if (info.error) throw new Error('the page reported an error: ' + info.text);
    return info.text;
  }
  const seq = () => page.evaluate(() => window.playground.seq);

  // Photo pixel (x, y) -> the centre of its on-screen area.
  async function screenPoint(x, y) {
    const box = await page.evaluate(() => {
      const r = document.getElementById('draw').getBoundingClientRect();
      return { left: r.left, top: r.top, width: r.width, height: r.height };
    });
    const s = await state();
    return [box.left + (x + 0.5) * box.width / s.width, box.top + (y + 0.5) * box.height / s.height];
  }
  async function drag(points) {
    const [x0, y0] = await screenPoint(...points[0]);
    await page.mouse.move(x0, y0);
    await page.mouse.down();
    for (const p of points.slice(1)) {
      const [x, y] = await screenPoint(...p);
      await page.mouse.move(x, y, { steps: 12 });
    }
    await page.mouse.up();
  }
  async function click(selector) {
    const n = await seq();
    await page.click(selector);
    return settled(n);
  }
  async function rectangle() {
    const n = await seq();
    await page.click('input[name="tool"][value="rect"]');
    await drag([[rect[0], rect[1]], [rect[2], rect[3]]]);
    await settled(n);
    const sent = await page.evaluate(() => window.playground.lastRequest);
    // A photo shown scaled down cannot be hit pixel-exactly.
    if (args.measure) return;
    check(sent.kind === 'rect' && sent.body.x1 === rect[0] && sent.body.y1 === rect[1] &&
      sent.body.x2 === rect[2] && sent.body.y2 === rect[3],
      `the dragged rectangle reached the server as ${rect.join(',')}`);
  }

  if (args.measure) {
    const s = await state();
    for (let i = 0; i < 3; i++) {
      await rectangle();
    }
    const t = await page.evaluate(() => window.playground.timings);
    console.log(`page_test: ${s.width}x${s.height} (${(s.width * s.height / 1e6).toFixed(2)} MP)`);
    for (const x of t) {
      console.log(`page_test: ${x.kind}: library ${x.libraryMs.toFixed(0)} ms, answer ` +
        `${x.requestMs.toFixed(0)} ms, on screen ${x.browserMs.toFixed(0)} ms`);
    }
    await page.screenshot({ path: path.join(out, 'measure.png') });
  } else {
    // 1. Rectangle, then the mask downloaded with the page's button.
    await rectangle();
    const afterRect = await state();
    check(afterRect.hasMask && afterRect.objectPixels > 0, 'the rectangle delivered a mask');
    check(!afterRect.canUndo && !afterRect.canRedo &&
      await page.$eval('#undo', (b) => b.disabled) && await page.$eval('#redo', (b) => b.disabled),
      'one mask: undo and redo buttons disabled');
    await page.click('#download');
    let file = null;
    for (let i = 0; i < 200 && !file; i++) {
      const done = readdirSync(downloads).filter((f) => f.endsWith('.png'));
      if (done.length) file = path.join(downloads, done[0]);
      else await sleep(50);
    }
    if (!file) throw new Error('no mask was downloaded');
    await sleep(200);  // let the download finish writing
    const downloaded = readFileSync(file);
    check(downloaded.equals(reference),
      `downloaded ${path.basename(file)} (${downloaded.length} bytes) is byte-equal to ` +
      `segment_photo's mask.png (${reference.length} bytes)`);

    // 2. A background stroke across the cup removes object pixels.
    await page.click('input[name="tool"][value="background"]');
    let n = await seq();
    await drag([[230, 200], [330, 205], [380, 215]]);
    await settled(n);
    const afterStroke = await state();
    check(afterStroke.objectPixels < afterRect.objectPixels,
      `the background stroke removed object pixels (${afterRect.objectPixels} -> ${afterStroke.objectPixels})`);
    check(afterStroke.canUndo && !afterStroke.canRedo &&
      !(await page.$eval('#undo', (b) => b.disabled)), 'two masks: undo enabled');

    // 3. Undo and redo step between the two masks.
    await click('#undo');
    const afterUndo = await state();
    check(afterUndo.objectPixels === afterRect.objectPixels && afterUndo.canRedo &&
      !(await page.$eval('#redo', (b) => b.disabled)), 'undo brought the rectangle mask back');
    await click('#redo');
    const afterRedo = await state();
    check(afterRedo.objectPixels === afterStroke.objectPixels && !afterRedo.canRedo,
      'redo brought the stroke mask back');

    // 4. The overlay is painted where the mask is.
    const tinted = await page.evaluate(() => {
      const c = document.getElementById('tint');
      const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
      let n = 0;
      for (let i = 3; i < d.length; i += 4) if (d[i] > 0) n++;
      return n;
    });
    check(tinted > 0, `the mask overlay is painted (${tinted} canvas pixels)`);
    check(pageErrors.length === 0, 'no script errors on the page ' + pageErrors.join('; '));
    await page.screenshot({ path: path.join(out, 'playground.png') });
    console.log('page_test: screenshot ' + path.join(out, 'playground.png'));
    const t = await page.evaluate(() => window.playground.timings);
    for (const x of t) {
      console.log(`page_test: time: ${x.kind}: library ${x.libraryMs.toFixed(0)} ms, ` +
        `on screen ${x.browserMs.toFixed(0)} ms`);
    }
  }
} catch (e) {
  failed = e;
} finally {
  await browser.close().catch(() => {});
  server.kill('SIGTERM');
}
if (failed) fail(failed.stack || failed.message);
console.log('page_test: PASS');
