// End-to-end test of the playground page in headless Chromium.
//
// Starts the playground server on a free port and works in its page with real
// mouse, key and touch events:
//  - a rectangle at fit, its mask downloaded with the page's button and
//    compared byte for byte with segment_photo's mask.png for the same
//    rectangle (both written by OpenCV's PNG encoder with default settings);
//  - a background stroke, undo and redo by Ctrl+Z, Ctrl+Shift+Z and Ctrl+Y;
//  - a rectangle drawn at 200 % after moving the view gives the same mask as
//    at fit; wheel zoom keeps the photo point under the pointer;
//  - the help overlay; a second tab makes the first one stale;
//  - a photo with transparency is shown on white, with a notice;
//  - phone viewports (390 x 844 and 844 x 390): the photo's share of the
//    screen, one finger draws, two fingers zoom and never draw;
//  - a 12 MP photo (the sample scaled up in the page): a cancelled cut leaves
//    the previous mask on screen and undo available;
//  - the times until a result is on screen at 0.3 and 12 MP are printed.
// Screenshots go to the output folder.
//
// node page_test.mjs --playground BIN --segment-photo BIN --photo PNG --out DIR
//   [--rect X1,Y1,X2,Y2] [--measure]   (--measure: only time rectangles)
// Environment: CHROMIUM (default /usr/bin/chromium).
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
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
const shots = [];
try {
  const page = await browser.newPage();
  const pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(e.message));
  const cdp = await page.createCDPSession();
  await cdp.send('Browser.setDownloadBehavior', { behavior: 'allow', downloadPath: downloads });
  await page.goto(url, { waitUntil: 'load' });
  await page.waitForSelector('#status[data-ready="1"]', { timeout: 60000 });

  const state = (p = page) => p.evaluate(() => window.playground.state);
  const seq = (p = page) => p.evaluate(() => window.playground.seq);
  async function shot(name, p = page) {
    const file = path.join(out, name);
    await p.screenshot({ path: file });
    shots.push(file);
    console.log('page_test: screenshot ' + file);
  }

  // Waits for the page to finish the next request; returns its status text.
  async function settled(seqBefore, { p = page, timeout = 180000, allowError = false } = {}) {
    await p.waitForFunction((n) => window.playground.seq > n && !window.playground.busy,
      { timeout }, seqBefore);
    const info = await p.evaluate(() => ({
      text: document.getElementById('status').textContent,
      error: document.getElementById('status').dataset.error === '1',
    }));
    console.log('page_test: status: ' + info.text);
    if (info.error && !allowError) throw new Error('the page reported an error: ' + info.text);
    return info;
  }

  // Photo pixel (x, y) -> the centre of its on-screen area, from the page's
  // own view (zoom and pan).
  const screenPoint = (x, y, p = page) => p.evaluate((a, b) => window.playground.photoToClient(a, b), x, y);
  async function drag(points, p = page) {
    const [x0, y0] = await screenPoint(...points[0], p);
    await p.mouse.move(x0, y0);
    await p.mouse.down();
    for (const pt of points.slice(1)) {
      const [x, y] = await screenPoint(...pt, p);
      await p.mouse.move(x, y, { steps: 12 });
    }
    await p.mouse.up();
  }
  // keys('Control', 'z'): modifiers held, the last key pressed.
  async function keys(...combo) {
    const key = combo.pop();
    for (const m of combo) await page.keyboard.down(m);
    await page.keyboard.press(key);
    for (const m of combo.reverse()) await page.keyboard.up(m);
  }
  async function keyRequest(...combo) {
    const n = await seq();
    await keys(...combo);
    return settled(n);
  }
  async function rectangle(r, p = page) {
    const n = await seq(p);
    await p.click('input[name="tool"][value="rect"]');
    await drag([[r[0], r[1]], [r[2], r[3]]], p);
    await settled(n, { p });
    const sent = await p.evaluate(() => window.playground.lastRequest);
    check(sent.kind === 'rect' && sent.body.x1 === r[0] && sent.body.y1 === r[1] &&
      sent.body.x2 === r[2] && sent.body.y2 === r[3],
      `the dragged rectangle reached the server as ${r.join(',')}`);
  }
  // SHA-256 of the mask on screen as the server serves it.
  const maskDigest = (p = page) => p.evaluate(async () => {
    const r = await fetch('/api/mask.png');
    const d = await crypto.subtle.digest('SHA-256', await r.arrayBuffer());
    return [...new Uint8Array(d)].map((b) => b.toString(16).padStart(2, '0')).join('');
  });
  const disabled = (sel, p = page) => p.$eval(sel, (b) => b.disabled);
  // An image made in the page from the photo on screen, saved for an upload.
  async function makeImage(file, script) {
    const dataUrl = await page.evaluate(script);
    writeFileSync(file, Buffer.from(dataUrl.slice(dataUrl.indexOf(',') + 1), 'base64'));
    return file;
  }
  async function open(file, p = page) {
    const n = await seq(p);
    const input = await p.$('#file');
    await input.uploadFile(file);
    await settled(n, { p });
  }
  const times = [];
  const lastTime = async (label) => {
    const t = await page.evaluate(() => window.playground.timings.at(-1));
    times.push({ label, ...t });
    return t;
  };

  if (args.measure) {
    const s = await state();
    for (let i = 0; i < 3; i++) await rectangle(rect);
    const t = await page.evaluate(() => window.playground.timings);
    console.log(`page_test: ${s.width}x${s.height} (${(s.width * s.height / 1e6).toFixed(2)} MP)`);
    for (const x of t) {
      console.log(`page_test: ${x.kind}: library ${x.libraryMs.toFixed(0)} ms, answer ` +
        `${x.requestMs.toFixed(0)} ms, on screen ${x.browserMs.toFixed(0)} ms`);
    }
    await shot('measure.png');
  } else {
    const photo = await state();
    // Made now, while the preview is the plain photo: a 12 MP JPEG of it.
    const big = await makeImage(path.join(out, 'big-12mp.jpg'), () => new Promise((resolve) => {
      const c = document.createElement('canvas');
      c.width = 4000;
      c.height = 3000;
      c.getContext('2d').drawImage(document.getElementById('preview'), 0, 0, 4000, 3000);
      c.toBlob((b) => { const f = new FileReader(); f.onload = () => resolve(f.result); f.readAsDataURL(b); },
        'image/jpeg', 0.92);
    }));
    const transparent = await makeImage(path.join(out, 'transparent.png'), () => new Promise((resolve) => {
      const c = document.createElement('canvas');
      c.width = 300;
      c.height = 200;
      const ctx = c.getContext('2d');
      ctx.drawImage(document.getElementById('preview'), 0, 0, 300, 200);
      ctx.clearRect(0, 0, 80, 200);  // transparent black on the left
      c.toBlob((b) => { const f = new FileReader(); f.onload = () => resolve(f.result); f.readAsDataURL(b); },
        'image/png');
    }));

    // 1. Rectangle at fit, then the mask downloaded with the page's button.
    const fitScale = (await page.evaluate(() => window.playground.view)).scale;
    check(fitScale >= 1, `the ${photo.width}x${photo.height} photo is fitted at ${(fitScale * 100).toFixed(0)} %`);
    await rectangle(rect);
    await lastTime(`${photo.width}x${photo.height} rectangle`);
    const afterRect = await state();
    check(afterRect.hasMask && afterRect.objectPixels > 0, 'the rectangle delivered a mask');
    check(!afterRect.canUndo && !afterRect.canRedo && await disabled('#undo') && await disabled('#redo'),
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

    // 2. A background stroke (tool by its key), undo and redo by keys.
    await keys('b');
    let n = await seq();
    await drag([[230, 200], [330, 205], [380, 215]]);
    await settled(n);
    const afterStroke = await state();
    check(afterStroke.objectPixels < afterRect.objectPixels,
      `the B key chose the background brush and its stroke removed object pixels (${afterRect.objectPixels} -> ${afterStroke.objectPixels})`);
    check(afterStroke.canUndo && !afterStroke.canRedo && !(await disabled('#undo')), 'two masks: undo enabled');
    await keyRequest('Control', 'z');
    const afterUndo = await state();
    check(afterUndo.objectPixels === afterRect.objectPixels && afterUndo.canRedo && !(await disabled('#redo')),
      'Ctrl+Z undid the stroke');
    await keyRequest('Control', 'Shift', 'z');
    check((await state()).objectPixels === afterStroke.objectPixels, 'Ctrl+Shift+Z redid it');
    await keyRequest('Control', 'z');
    await keyRequest('Control', 'y');
    check((await state()).objectPixels === afterStroke.objectPixels && !(await state()).canRedo,
      'Ctrl+Z then Ctrl+Y came back to the stroke');

    // 3. The overlay is painted where the mask is.
    const tinted = await page.evaluate(() => {
      const c = document.getElementById('tint');
      const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
      let k = 0;
      for (let i = 3; i < d.length; i += 4) if (d[i] > 0) k++;
      return k;
    });
    check(tinted > 0, `the mask overlay is painted (${tinted} canvas pixels)`);
    await shot('desktop-fit.png');

    // 4. The same rectangle at fit and at 200 % (after moving the view) gives
    // the same mask.
    const r2 = [150, 90, 450, 330];
    await rectangle(r2);
    const atFit = await maskDigest();
    await keys('1');
    await keys('+');
    await keys('+');
    let v = await page.evaluate(() => window.playground.view);
    check(v.scale === 2, `keys 1, +, + zoom to 200 % (${v.scale * 100} %)`);
    // Space + drag moves the view (the 1200 px wide photo is centred across
    // the viewport, so only up and down).
    const [cx, cy] = await screenPoint(300, 200);
    await page.keyboard.down(' ');
    await page.mouse.move(cx, cy);
    await page.mouse.down();
    await page.mouse.move(cx + 50, cy - 60, { steps: 8 });
    await page.mouse.up();
    await page.keyboard.up(' ');
    const moved = await page.evaluate(() => window.playground.view);
    console.log(`page_test: view at 200 %: ${JSON.stringify(v)} -> ${JSON.stringify(moved)}`);
    check(moved.x === v.x && Math.abs(moved.y - v.y + 60) < 1e-6 &&
      (await page.evaluate(() => window.playground.lastRequest.body.x1)) === r2[0],
      'space + drag moved the view by the drag and sent nothing');
    await shot('desktop-200.png');
    await rectangle(r2);
    check(await maskDigest() === atFit, 'the rectangle drawn at 200 % gives the same mask as at fit');
    // The middle button moves the view as well.
    const [mx, my] = await screenPoint(250, 150);
    await page.mouse.move(mx, my);
    await page.mouse.down({ button: 'middle' });
    await page.mouse.move(mx, my + 30, { steps: 4 });
    await page.mouse.up({ button: 'middle' });
    v = await page.evaluate(() => window.playground.view);
    check(v.x === moved.x && Math.abs(v.y - moved.y - 30) < 1e-6,
      'a middle-button drag moved the view');
    // The wheel zooms at the pointer: the photo pixel under it stays there.
    const [wx, wy] = await screenPoint(200, 150);
    await page.mouse.move(wx, wy);
    await page.mouse.wheel({ deltaY: -300 });
    await page.waitForFunction((s) => window.playground.view.scale !== s, {}, v.scale);
    const [wx2, wy2] = await screenPoint(200, 150);
    const wv = await page.evaluate(() => window.playground.view);
    // (Within a pixel: the browser hands the wheel event whole-pixel coordinates.)
    check(wv.scale > v.scale && Math.hypot(wx2 - wx, wy2 - wy) < 1,
      `the wheel zoomed in to ${(wv.scale * 100).toFixed(0)} % about the pointer`);
    await keys('0');
    check(Math.abs((await page.evaluate(() => window.playground.view)).scale - fitScale) < 1e-9, 'key 0 fits the photo again');

    // 5. The help overlay lists the shortcuts; Esc closes it.
    await keys('?');
    check(!(await page.$eval('#help', (h) => h.hidden)) &&
      (await page.$eval('#help', (h) => h.textContent)).includes('Ctrl+Shift+Z'), '? opens the help overlay');
    await shot('help.png');
    await keys('Escape');
    check(await page.$eval('#help', (h) => h.hidden), 'Esc closes it');

    // 6. A second tab changes the result: the first one is told to reload and
    // sends nothing.
    const tab = await browser.newPage();
    await tab.goto(url, { waitUntil: 'load' });
    await tab.waitForSelector('#status[data-ready="1"]', { timeout: 60000 });
    await rectangle(rect, tab);
    await page.bringToFront();
    await page.waitForSelector('#stale:not([hidden])', { timeout: 10000 });
    const before = await state(tab);
    await page.keyboard.press('b');
    await drag([[230, 200], [330, 205]]);
    await sleep(300);
    check((await state(tab)).version === before.version &&
      (await page.$eval('#staleText', (e) => e.textContent)).includes('Reload'),
      'the first tab shows "reload" and its stroke did not reach the server');
    await shot('stale-tab.png');
    await tab.close();
    await page.reload({ waitUntil: 'load' });
    await page.waitForSelector('#status[data-ready="1"]', { timeout: 60000 });
    check((await state()).version === before.version, 'after a reload the page shows the current result');

    // 7. A photo with transparency is composited on white, and says so.
    await open(transparent);
    const t = await state();
    check(t.width === 300 && t.height === 200 && t.onWhite &&
      !(await page.$eval('#notice', (e) => e.hidden)) &&
      (await page.$eval('#notice', (e) => e.textContent)).includes('on white'),
      'the transparent photo is shown on white, with a notice');
    const white = await page.evaluate(() => {
      const img = document.getElementById('preview');
      const c = document.createElement('canvas');
      c.width = img.naturalWidth;
      c.height = img.naturalHeight;
      const ctx = c.getContext('2d');
      ctx.drawImage(img, 0, 0);
      return Array.from(ctx.getImageData(10, 100, 1, 1).data);
    });
    check(white.join(',') === '255,255,255,255', `a transparent pixel is white on screen (${white})`);
    await shot('transparent.png');

    // 8. Phone viewports.
    await open(args.photo);
    const phone = await browser.newPage();
    phone.on('pageerror', (e) => pageErrors.push(e.message));
    await phone.setViewport({ width: 390, height: 844, isMobile: true, hasTouch: true, deviceScaleFactor: 2 });
    await phone.goto(url, { waitUntil: 'load' });
    await phone.waitForSelector('#status[data-ready="1"]', { timeout: 60000 });
    const boxes = async () => phone.evaluate(() => {
      const box = (id) => {
        const r = document.getElementById(id).getBoundingClientRect();
        return { width: r.width, height: r.height };
      };
      const v = window.playground.view;
      const s = window.playground.state;
      return { bar: box('bar'), viewport: box('viewport'), photoW: s.width * v.scale, photoH: s.height * v.scale,
        screenW: innerWidth, screenH: innerHeight };
    });
    let b = await boxes();
    console.log('page_test: portrait: bar ' + b.bar.height.toFixed(0) + ' px, photo area ' +
      b.viewport.width.toFixed(0) + ' x ' + b.viewport.height.toFixed(0) + ', photo ' +
      b.photoW.toFixed(0) + ' x ' + b.photoH.toFixed(0));
    check(b.bar.height <= 56 && b.viewport.height >= 0.85 * b.screenH && b.photoW >= 0.95 * b.screenW,
      'portrait 390 x 844: one compact bar; the photo area takes most of the screen and the photo its width');
    const phoneCdp = await phone.createCDPSession();
    const touch = (type, points) => phoneCdp.send('Input.dispatchTouchEvent', {
      type, touchPoints: points.map(([x, y], id) => ({ x, y, id, radiusX: 2, radiusY: 2, force: 1 })),
    });
    // The emulated phone drops a tap that comes within a moment of the end of
    // a touch sequence (seen in headless Chromium, for longer on a busy
    // machine); a finger pauses anyway, and taps again when nothing happened.
    // `took` is a page function that is true once the tap has had its effect.
    const phoneTap = async (selector, took, arg) => {
      for (let attempt = 1; ; ++attempt) {
        await sleep(400);
        await phone.tap(selector);
        if (!took) return;
        try {
          await phone.waitForFunction(took, { timeout: 2000 }, arg);
          return;
        } catch (e) {
          if (attempt === 5) throw e;
        }
      }
    };
    const toolIs = (value) => document.querySelector('input[name="tool"]:checked').value === value;
    // A request's start shows as busy, its end as a higher sequence number.
    const requestStarted = (n) => window.playground.busy || window.playground.seq > n;
    const fingerDrag = async (photoPoints) => {
      const pts = [];
      for (const pt of photoPoints) pts.push(await screenPoint(...pt, phone));
      await touch('touchStart', [pts[0]]);
      for (const pt of pts.slice(1)) await touch('touchMove', [pt]);
      await touch('touchEnd', []);
    };
    // One finger draws a rectangle, then a background stroke.
    await phone.tap('label[title^="Rectangle"]');
    await phone.waitForFunction(() => document.querySelector('input[name="tool"]:checked').value === 'rect',
      { timeout: 5000 });
    n = await seq(phone);
    await fingerDrag([[65, 50], [200, 150], [485, 392]]);
    await settled(n, { p: phone });
    let sent = await phone.evaluate(() => window.playground.lastRequest);
    check(sent.kind === 'rect' && sent.body.x1 === 65 && sent.body.y1 === 50 && sent.body.x2 === 485 &&
      sent.body.y2 === 392,
      'one finger drew the rectangle (photo pixels hit exactly at 62 %)');
    await phoneTap('label[title^="Background brush"]', toolIs, 'background');
    n = await seq(phone);
    await fingerDrag([[240, 200], [290, 204], [340, 210]]);
    await settled(n, { p: phone });
    sent = await phone.evaluate(() => window.playground.lastRequest);
    check(sent.kind === 'stroke' && sent.body.object === false && sent.body.points.length >= 3,
      'one finger drew a background stroke');
    n = await seq(phone);
    await phoneTap('#undo', requestStarted, n);
    await settled(n, { p: phone });
    const beforePinch = await state(phone);
    check(beforePinch.canRedo, 'undo on the phone left a redo step');
    // Two fingers: one lands, moves a little, then the second lands; they
    // spread and move. Nothing is sent, the redo step stays, the view zooms.
    const v0 = await phone.evaluate(() => window.playground.view);
    const c0 = [195, 400];
    await touch('touchStart', [c0]);
    await touch('touchMove', [[c0[0] + 6, c0[1] + 4]]);
    await touch('touchStart', [[c0[0] + 6, c0[1] + 4], [c0[0] + 60, c0[1]]]);
    for (let i = 1; i <= 8; i++) {
      await touch('touchMove', [[c0[0] + 6 - 8 * i, c0[1] + 4 + 3 * i], [c0[0] + 60 + 8 * i, c0[1] + 3 * i]]);
    }
    await touch('touchEnd', [[c0[0] + 60 + 64, c0[1] + 24]]);
    await touch('touchMove', [[c0[0] + 80, c0[1] + 60]]);  // the finger left behind must not draw
    await touch('touchEnd', []);
    await sleep(300);
    const v1 = await phone.evaluate(() => window.playground.view);
    const afterPinch = await state(phone);
    check(v1.scale > v0.scale * 1.5 && (await seq(phone)) === n + 1 &&
      afterPinch.version === beforePinch.version && afterPinch.canRedo,
      `two fingers zoomed ${(v0.scale * 100).toFixed(0)} % -> ${(v1.scale * 100).toFixed(0)} % and drew nothing; the redo step stays`);
    await shot('phone-zoomed.png', phone);
    await phone.evaluate(() => document.getElementById('zoomFit').click());
    await shot('phone-portrait.png', phone);
    await phoneTap('#more');
    await shot('phone-menu.png', phone);
    await phoneTap('#more');
    await phone.setViewport({ width: 844, height: 390, isMobile: true, hasTouch: true, deviceScaleFactor: 2 });
    await sleep(300);
    b = await boxes();
    console.log('page_test: landscape: bar ' + b.bar.width.toFixed(0) + ' px wide, photo area ' +
      b.viewport.width.toFixed(0) + ' x ' + b.viewport.height.toFixed(0) + ', photo ' +
      b.photoW.toFixed(0) + ' x ' + b.photoH.toFixed(0));
    check(b.bar.width <= 56 && b.viewport.width * b.viewport.height >= 0.8 * b.screenW * b.screenH &&
      b.photoH >= 0.85 * b.screenH, 'landscape 844 x 390: the bar is a column; the photo takes the height');
    await shot('phone-landscape.png', phone);
    await phone.close();

    // 9. 12 MP: open, rectangle, stroke; then a cut cancelled with Esc keeps
    // the previous mask on screen and undo available.
    await page.bringToFront();
    await page.reload({ waitUntil: 'load' });
    await page.waitForSelector('#status[data-ready="1"]', { timeout: 60000 });
    await open(big);
    const bigState = await state();
    check(bigState.width === 4000 && bigState.height === 3000, 'the 12 MP photo is open');
    await rectangle(rect.map((c) => Math.round(c * 4000 / 600)));
    await lastTime('4000x3000 rectangle');
    await keys('b');
    n = await seq();
    await drag([[1533, 1333], [2200, 1366], [2533, 1433]]);
    await settled(n);
    await lastTime('4000x3000 background stroke');
    const shown = await state();
    const shownMask = await maskDigest();
    check(shown.canUndo && !(await disabled('#undo')), '12 MP: two masks, undo available');
    await keys('l');
    n = await seq();
    await drag([[300, 260], [3700, 300], [3650, 2750], [350, 2700]]);
    await page.waitForSelector('#busy:not([hidden])');
    await page.waitForFunction(() => document.getElementById('elapsed').textContent !== '0.0 s');
    const busy = await page.evaluate(() => {
      const c = document.getElementById('draw');
      const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
      let k = 0;
      for (let i = 3; i < d.length; i += 4) if (d[i] > 0) k++;
      return { mark: k, elapsed: document.getElementById('elapsed').textContent,
        undo: document.getElementById('undo').disabled, redo: document.getElementById('redo').disabled,
        reset: document.getElementById('reset').disabled, open: document.getElementById('file').disabled,
        cancel: document.getElementById('cancel').disabled, busy: window.playground.busy };
    });
    check(busy.busy && busy.mark > 1000 && busy.undo && busy.redo && busy.reset && busy.open && !busy.cancel &&
      /^\d+\.\d s$/.test(busy.elapsed),
      `while the cut runs the loop stays drawn (${busy.mark} pixels), ${busy.elapsed} elapsed shows, ` +
      'undo, redo, reset and open are disabled and cancel is enabled');
    await page.keyboard.press('Escape');
    await page.waitForFunction(() => document.getElementById('busyText').textContent.startsWith('Cancelling'));
    await shot('busy-12mp.png');
    await settled(n);
    const cancelled = await page.evaluate(() => window.playground.lastCancel);
    const after = await state();
    check(cancelled && cancelled.cancelled === true, 'Esc cancelled the 12 MP cut: ' + (cancelled && cancelled.message));
    check(after.canUndo === shown.canUndo && after.canRedo === shown.canRedo &&
      after.objectPixels === shown.objectPixels && await maskDigest() === shownMask &&
      !(await disabled('#undo')),
      'after the cancel the previous mask is on screen, byte for byte, and undo is available');
    await shot('cancelled-12mp.png');
    await keyRequest('Control', 'z');
    check((await state()).objectPixels !== shown.objectPixels && (await state()).canRedo,
      'Ctrl+Z after the cancel steps back to the rectangle');
    await lastTime('4000x3000 undo');

    check(pageErrors.length === 0, 'no script errors on the pages ' + pageErrors.join('; '));
    for (const x of times) {
      console.log(`page_test: time: ${x.label}: library ${x.libraryMs.toFixed(0)} ms, answer ` +
        `${x.requestMs.toFixed(0)} ms, on screen ${x.browserMs.toFixed(0)} ms`);
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
