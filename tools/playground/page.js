// The playground page: marks drawn with pointer events (mouse, pen or touch)
// go to the server, which runs them through the library; the page shows the
// library's preview (photo with its outline) and a translucent mask overlay.
//
// The photo is shown in a viewport that zooms and pans; every mark is kept in
// photo pixels, so what is sent does not depend on the zoom. One finger (or
// the mouse's left button) draws; two fingers, the wheel, the middle button
// and space + drag only move the view.
'use strict';

(() => {
  const $ = (id) => document.getElementById(id);
  const viewport = $('viewport');
  let preview = $('preview');
  const tint = $('tint');
  const draw = $('draw');
  const statusEl = $('status');
  const hintEl = $('hint');
  const noticeEl = $('notice');
  const widthInput = $('width');
  const ui = {
    undo: $('undo'), redo: $('redo'), reset: $('reset'), cancel: $('cancel'),
    overlay: $('overlay'), edit: $('edit'), file: $('file'), openLabel: $('openLabel'),
    download: $('download'), widthValue: $('widthValue'), busy: $('busy'),
    busyText: $('busyText'), elapsed: $('elapsed'), busyCancel: $('busyCancel'),
    stale: $('stale'), staleText: $('staleText'), reload: $('reload'), more: $('more'),
    help: $('help'), helpButton: $('helpButton'), helpClose: $('helpClose'),
    zoomIn: $('zoomIn'), zoomOut: $('zoomOut'), zoomFit: $('zoomFit'), zoom100: $('zoom100'),
    zoomValue: $('zoomValue'),
  };
  const MASK_COLOUR = [40, 150, 255, 110];
  const HINTS = {
    rect: 'Drag a rectangle round the object.',
    loop: 'Draw a closed loop round the object.',
    object: 'Brush over parts that belong to the object.',
    background: 'Brush over parts that do not belong to the object.',
  };
  const TOOL_KEYS = { r: 'rect', l: 'loop', o: 'object', b: 'background' };
  // Zoom steps for + and - (screen pixels per photo pixel).
  const STEPS = [1 / 32, 1 / 24, 1 / 16, 1 / 12, 1 / 8, 1 / 6, 1 / 4, 1 / 3, 1 / 2, 2 / 3, 1,
    1.5, 2, 3, 4, 6, 8, 12, 16, 24, 32];
  const MAX_SCALE = 32;

  // Shared with the browser test.
  const pg = window.playground = {
    state: null, timings: [], lastRequest: null, busy: false, seq: 0, stale: false,
    view: { scale: 1, x: 0, y: 0, fitted: true },
  };
  const view = pg.view;
  let maskImage = null;
  let shownVersion = null;  // photoId.version of what is on screen
  let gesture = null;       // the mark being drawn (photo pixels)
  let pending = null;       // the mark whose request runs; stays drawn meanwhile
  let pan = null;           // a drag that moves the view
  let pinch = null;         // two fingers
  const touches = new Map();  // pointerId -> {x, y} of the fingers down
  let touchLock = false;    // after a pinch, no drawing until every finger is up
  let spaceDown = false;
  let busyTimer = 0;
  let cancellable = false;
  let paintQueued = false;

  const tool = () => document.querySelector('input[name="tool"]:checked').value;
  const fmt = (n) => Math.round(n).toLocaleString('en-US');

  function setStatus(text, isError) {
    statusEl.textContent = text;
    statusEl.title = text;
    statusEl.classList.toggle('error', !!isError);
  }

  function finish(isError) {
    pg.seq += 1;
    statusEl.dataset.seq = String(pg.seq);
    statusEl.dataset.error = isError ? '1' : '0';
  }

  // --- busy state -----------------------------------------------------------

  function setBusy(busy, canCancel, label) {
    pg.busy = busy;
    cancellable = busy && canCancel;
    ui.cancel.disabled = !cancellable;
    ui.busyCancel.hidden = !cancellable;
    ui.busyCancel.disabled = !cancellable;
    ui.busy.hidden = !busy;
    clearInterval(busyTimer);
    if (busy) {
      const t0 = performance.now();
      ui.busyText.textContent = (label || 'Working') + '…';
      ui.elapsed.textContent = '0.0 s';
      busyTimer = setInterval(() => {
        ui.elapsed.textContent = ((performance.now() - t0) / 1000).toFixed(1) + ' s';
      }, 100);
    }
    updateControls();
  }

  // Enables exactly the controls that can act now.
  function updateControls() {
    const s = pg.state;
    const idle = !pg.busy && !pg.stale && !!s;
    ui.undo.disabled = !(idle && s.canUndo);
    ui.redo.disabled = !(idle && s.canRedo);
    ui.reset.disabled = !(idle && (s.hasMask || s.canRedo));
    const canDownload = idle && s.hasMask;
    ui.download.classList.toggle('disabled', !canDownload);
    ui.download.setAttribute('aria-disabled', String(!canDownload));
    // A stale page may still open a photo: that makes it current again.
    ui.file.disabled = pg.busy || !s;
    ui.openLabel.classList.toggle('disabled', ui.file.disabled);
    draw.classList.toggle('wait', pg.busy);
  }

  function showStale(text) {
    pg.stale = true;
    ui.staleText.textContent = text;
    ui.stale.hidden = false;
    gesture = null;
    repaintMarks();
    updateControls();
  }

  // --- server ---------------------------------------------------------------

  async function api(path, options) {
    let res;
    try {
      res = await fetch(path, options);
    } catch (e) {
      return {
        status: 0,
        body: { error: 'The server cannot be reached: it may have stopped. Start it again and reload the page.' },
      };
    }
    let body;
    try {
      body = await res.json();
    } catch (e) {
      body = { error: 'The server gave an answer the page cannot read.' };
    }
    return { status: res.status, body };
  }

  // What the page shows, for the server to check that it acts on that.
  const viewParam = () => (pg.state ? '?view=' + encodeURIComponent(pg.state.photoId + '.' + pg.state.version) : '');

  function loadImage(src) {
    const img = new Image();
    img.draggable = false;
    img.src = src;
    return img.decode().then(() => img, () => { throw new Error('The picture from the server could not be shown; reload the page.'); });
  }

  // --- view -----------------------------------------------------------------

  function fitScale() {
    const s = pg.state;
    if (!s) return 1;
    const m = 8;
    return Math.max(1e-3, Math.min((viewport.clientWidth - 2 * m) / s.width,
      (viewport.clientHeight - 2 * m) / s.height));
  }

  // Keeps the photo in reach: centred along a side that fits, otherwise no
  // gap between its edge and the viewport's.
  function clampView() {
    const s = pg.state;
    if (!s) return;
    const w = s.width * view.scale;
    const h = s.height * view.scale;
    const vw = viewport.clientWidth;
    const vh = viewport.clientHeight;
    view.x = w <= vw ? (vw - w) / 2 : Math.min(0, Math.max(vw - w, view.x));
    view.y = h <= vh ? (vh - h) / 2 : Math.min(0, Math.max(vh - h, view.y));
  }

  function applyView() {
    clampView();
    preview.style.transform = `translate(${view.x}px, ${view.y}px) scale(${view.scale})`;
    preview.classList.toggle('pixelated', view.scale >= 2);
    ui.zoomValue.value = (view.scale * 100 >= 10 ? Math.round(view.scale * 100)
      : (view.scale * 100).toFixed(1)) + ' %';
    schedulePaint();
  }

  // Zooms to `scale` keeping the photo point under (cx, cy) (viewport
  // coordinates; default its centre) where it is.
  function zoomTo(scale, cx, cy) {
    if (!pg.state) return;
    const lo = Math.min(fitScale(), 1) / 4;
    const next = Math.min(MAX_SCALE, Math.max(lo, scale));
    if (cx === undefined) {
      cx = viewport.clientWidth / 2;
      cy = viewport.clientHeight / 2;
    }
    view.x = cx - (cx - view.x) * next / view.scale;
    view.y = cy - (cy - view.y) * next / view.scale;
    view.scale = next;
    view.fitted = false;
    applyView();
  }

  function zoomStep(dir) {
    const s = view.scale;
    const next = dir > 0 ? STEPS.find((v) => v > s * 1.001) : [...STEPS].reverse().find((v) => v < s / 1.001);
    zoomTo(next === undefined ? s : next);
  }

  function fit() {
    view.scale = fitScale();
    view.fitted = true;
    applyView();
  }

  function viewportPoint(clientX, clientY) {
    const r = viewport.getBoundingClientRect();
    return [clientX - r.left, clientY - r.top];
  }

  // Client coordinates -> photo pixel, clamped to the photo.
  function toPhoto(clientX, clientY) {
    const s = pg.state;
    const [vx, vy] = viewportPoint(clientX, clientY);
    const x = Math.floor((vx - view.x) / view.scale);
    const y = Math.floor((vy - view.y) / view.scale);
    return [Math.min(s.width - 1, Math.max(0, x)), Math.min(s.height - 1, Math.max(0, y))];
  }

  // The centre of photo pixel (x, y) in client coordinates (for the test).
  pg.photoToClient = (x, y) => {
    const r = viewport.getBoundingClientRect();
    return [r.left + view.x + (x + 0.5) * view.scale, r.top + view.y + (y + 0.5) * view.scale];
  };

  // Canvases follow the viewport's size at the device's pixel density.
  function sizeCanvases() {
    const dpr = window.devicePixelRatio || 1;
    const w = Math.max(1, Math.round(viewport.clientWidth * dpr));
    const h = Math.max(1, Math.round(viewport.clientHeight * dpr));
    for (const c of [tint, draw]) {
      if (c.width !== w || c.height !== h) {
        c.width = w;
        c.height = h;
      }
    }
  }

  function schedulePaint() {
    if (paintQueued) return;
    paintQueued = true;
    requestAnimationFrame(() => {
      paintQueued = false;
      paintTint();
      repaintMarks();
    });
  }

  // The mask as seen in the viewport: translucent inside, an opaque edge that
  // keeps the outline visible when a large photo is shown scaled down.
  function paintTint() {
    const ctx = tint.getContext('2d', { willReadFrequently: true });
    ctx.setTransform(1, 0, 0, 1, 0, 0);
    ctx.clearRect(0, 0, tint.width, tint.height);
    tint.classList.toggle('hidden', !ui.overlay.checked);
    if (!ui.overlay.checked || !maskImage || !pg.state || !pg.state.hasMask) return;
    const dpr = tint.width / Math.max(1, viewport.clientWidth);
    ctx.imageSmoothingEnabled = false;
    ctx.setTransform(dpr * view.scale, 0, 0, dpr * view.scale, dpr * view.x, dpr * view.y);
    ctx.drawImage(maskImage, 0, 0);
    ctx.setTransform(1, 0, 0, 1, 0, 0);
    // Only the part of the canvas that the photo covers needs colouring.
    const x0 = Math.max(0, Math.floor(dpr * view.x));
    const y0 = Math.max(0, Math.floor(dpr * view.y));
    const x1 = Math.min(tint.width, Math.ceil(dpr * (view.x + pg.state.width * view.scale)));
    const y1 = Math.min(tint.height, Math.ceil(dpr * (view.y + pg.state.height * view.scale)));
    const w = x1 - x0;
    const h = y1 - y0;
    if (w < 1 || h < 1) return;
    const data = ctx.getImageData(x0, y0, w, h);
    const px = data.data;
    const inside = new Uint8Array(w * h);
    for (let i = 0, j = 0; j < inside.length; i += 4, j++) inside[j] = px[i] > 127 ? 1 : 0;
    for (let j = 0, i = 0; j < inside.length; j++, i += 4) {
      if (!inside[j]) {
        px[i + 3] = 0;
        continue;
      }
      const x = j % w;
      const edge = x === 0 || x === w - 1 || j < w || j >= inside.length - w ||
        !inside[j - 1] || !inside[j + 1] || !inside[j - w] || !inside[j + w];
      px[i] = MASK_COLOUR[0]; px[i + 1] = MASK_COLOUR[1]; px[i + 2] = MASK_COLOUR[2];
      px[i + 3] = edge ? 255 : MASK_COLOUR[3];
    }
    ctx.putImageData(data, x0, y0);
  }

  // The mark being drawn, or the one whose cut runs, in photo pixels.
  function paintMark(ctx, mark, dpr, waiting) {
    const k = view.scale * dpr;
    const X = (px) => dpr * view.x + px * k;
    const Y = (py) => dpr * view.y + py * k;
    const pts = mark.points;
    ctx.lineJoin = 'round';
    ctx.lineCap = 'round';
    ctx.globalAlpha = waiting ? 0.85 : 1;
    if (mark.tool === 'rect') {
      const [a, b] = [pts[0], pts[pts.length - 1]];
      const x = X(Math.min(a[0], b[0]));
      const y = Y(Math.min(a[1], b[1]));
      const w = (Math.abs(b[0] - a[0]) + 1) * k;
      const h = (Math.abs(b[1] - a[1]) + 1) * k;
      ctx.lineWidth = 2 * dpr;
      ctx.strokeStyle = 'rgba(0,0,0,0.8)';
      ctx.setLineDash([]);
      ctx.strokeRect(x, y, w, h);
      ctx.setLineDash([6 * dpr, 4 * dpr]);
      ctx.strokeStyle = waiting ? '#ffd75e' : '#fff';
      ctx.strokeRect(x, y, w, h);
      ctx.setLineDash([]);
      return;
    }
    ctx.beginPath();
    pts.forEach(([px, py], i) => (i ? ctx.lineTo(X(px + 0.5), Y(py + 0.5))
      : ctx.moveTo(X(px + 0.5), Y(py + 0.5))));
    if (mark.tool === 'loop') {
      ctx.closePath();
      ctx.fillStyle = 'rgba(74,163,255,0.2)';
      ctx.fill();
      ctx.lineWidth = 2 * dpr;
      ctx.strokeStyle = waiting ? '#ffd75e' : '#4aa3ff';
    } else {
      ctx.lineWidth = Math.max(dpr, mark.width * k);
      ctx.strokeStyle = mark.tool === 'object' ? 'rgba(255,255,160,0.75)' : 'rgba(255,70,70,0.75)';
    }
    ctx.stroke();
  }

  function repaintMarks() {
    const ctx = draw.getContext('2d');
    ctx.setTransform(1, 0, 0, 1, 0, 0);
    ctx.clearRect(0, 0, draw.width, draw.height);
    if (!pg.state) return;
    const dpr = draw.width / Math.max(1, viewport.clientWidth);
    if (pending) paintMark(ctx, pending, dpr, true);
    if (gesture) paintMark(ctx, gesture, dpr, false);
    ctx.globalAlpha = 1;
  }

  // --- state ----------------------------------------------------------------

  // Shows a state from the server: preview, overlay, buttons.
  async function applyState(s) {
    const newPhoto = !pg.state || pg.state.photoId !== s.photoId;
    const key = s.photoId + '.' + s.version;
    if (key !== shownVersion) {
      // The new pictures are loaded and decoded before they replace the old
      // ones, so the screen never shows a half-loaded photo.
      const loads = [loadImage('/api/preview.png?v=' + encodeURIComponent(key))];
      if (s.hasMask) loads.push(loadImage('/api/mask.png?v=' + encodeURIComponent(key)));
      const [img, mask] = await Promise.all(loads);
      img.id = 'preview';
      img.alt = preview.alt;
      preview.replaceWith(img);
      preview = img;
      maskImage = mask || null;
      shownVersion = key;
    }
    pg.state = s;
    if (newPhoto) {
      widthInput.max = String(Math.min(s.limits.maxStrokeWidth, Math.max(200, 4 * s.strokeWidth)));
      widthInput.value = String(s.strokeWidth);
      ui.widthValue.value = String(s.strokeWidth);
      noticeEl.hidden = !s.onWhite;
      noticeEl.textContent = s.onWhite
        ? 'This photo has transparent parts: they are shown, and segmented, on white.' : '';
      sizeCanvases();
      fit();
    } else {
      applyView();
    }
    ui.download.href = '/api/mask.png?v=' + encodeURIComponent(key);
    updateControls();
  }

  // Resolves after the browser has painted what applyState put up.
  const painted = () => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r)));

  function describe(s) {
    const total = s.width * s.height;
    if (!s.hasMask) return 'no mask (plain photo)';
    return 'object ' + fmt(s.objectPixels) + ' px (' +
      (100 * s.objectPixels / total).toFixed(1) + ' % of ' + fmt(total) + ')';
  }

  const LABELS = {
    rect: 'Rectangle', loop: 'Loop', stroke: 'Stroke', undo: 'Undo', redo: 'Redo',
    reset: 'Reset', photo: 'Photo',
  };
  const CUTS = ['rect', 'loop', 'stroke'];

  // One request to the server; returns when the result is on screen.
  async function request(kind, body, label, mark) {
    if (pg.busy) {
      setStatus('A request is still running: wait for it or cancel it (Esc).', true);
      finish(true);
      return;
    }
    if (pg.stale) {
      finish(true);
      return;
    }
    const isCut = CUTS.includes(kind) && !(body && body.edit);
    pending = mark || null;
    const name = label || LABELS[kind] || kind;
    setBusy(true, isCut, isCut ? 'Cutting' : name);
    repaintMarks();
    pg.lastRequest = { kind, body };
    setStatus(name + ': running…');
    const t0 = performance.now();
    const options = { method: 'POST' };
    if (body !== undefined) {
      options.headers = { 'Content-Type': 'application/json' };
      options.body = JSON.stringify(body);
    }
    const { status, body: answer } = await api('/api/' + kind + viewParam(), options);
    let isError = false;
    try {
      if (status === 200) {
        const tServer = performance.now() - t0;
        await applyState(answer.state);
        pending = null;
        repaintMarks();
        await painted();
        const browserMs = performance.now() - t0;
        if (answer.cancelled !== undefined) {
          setStatus(name + ': ' + answer.message + ' (' + fmt(browserMs) + ' ms)');
          pg.lastCancel = answer;
        } else {
          pg.timings.push({ kind: name, libraryMs: answer.millis, requestMs: tServer, browserMs,
            pixels: answer.state.width * answer.state.height });
          let text = name + ': ' + fmt(answer.millis) + ' ms in the library, ' + fmt(browserMs) +
            ' ms until shown; ' + describe(answer.state);
          if (!answer.delivered && answer.note) text += ' — ' + answer.note;
          setStatus(text);
        }
      } else if (answer.stale) {
        isError = true;
        showStale(answer.error);
        setStatus(answer.error, true);
      } else {
        isError = true;
        setStatus(name + ' was not carried out: ' + (answer.error || 'the server gave no reason.'), true);
      }
    } catch (e) {
      isError = true;
      setStatus(name + ': ' + e.message, true);
    }
    pending = null;
    repaintMarks();
    setBusy(false, false);
    finish(isError);
  }

  async function cancelCut() {
    if (!pg.busy || !cancellable) return;
    ui.cancel.disabled = true;
    ui.busyCancel.disabled = true;
    ui.busyText.textContent = 'Cancelling…';
    const { status, body } = await api('/api/cancel', { method: 'POST' });
    // A refusal here means the cut ended by itself meanwhile; its own answer
    // tells what is on screen.
    if (status !== 200 && status !== 0) setStatus('Cancel: ' + (body.error || ''), true);
  }

  // --- drawing and moving ---------------------------------------------------

  function startGesture(e) {
    if (pg.stale) return;
    if (pg.busy) {
      setStatus('A cut is still running: wait for it or cancel it (Esc).', true);
      return;
    }
    gesture = {
      tool: tool(), points: [toPhoto(e.clientX, e.clientY)], width: Number(widthInput.value),
      id: e.pointerId,
    };
    repaintMarks();
  }

  function startPan(e) {
    pan = { id: e.pointerId, x: e.clientX, y: e.clientY, vx: view.x, vy: view.y };
    draw.classList.add('panning');
  }

  function startPinch() {
    const [a, b] = [...touches.values()];
    pinch = {
      d: Math.max(1, Math.hypot(a.x - b.x, a.y - b.y)),
      m: viewportPoint((a.x + b.x) / 2, (a.y + b.y) / 2),
      scale: view.scale, x: view.x, y: view.y,
    };
  }

  draw.addEventListener('pointerdown', (e) => {
    if (!pg.state) return;
    e.preventDefault();
    if (e.pointerType === 'touch') {
      touches.set(e.pointerId, { x: e.clientX, y: e.clientY });
      draw.setPointerCapture(e.pointerId);
      if (touches.size === 2) {
        // A second finger: whatever the first one drew is dropped, never sent.
        gesture = null;
        pan = null;
        touchLock = true;
        repaintMarks();
        startPinch();
      } else if (touches.size === 1 && !touchLock) {
        startGesture(e);
      }
      return;
    }
    if (gesture || pan) return;  // one pointer at a time
    if (e.button === 1 || (e.button === 0 && spaceDown)) {
      draw.setPointerCapture(e.pointerId);
      startPan(e);
    } else if (e.button === 0) {
      draw.setPointerCapture(e.pointerId);
      startGesture(e);
    }
  });

  draw.addEventListener('pointermove', (e) => {
    if (e.pointerType === 'touch' && touches.has(e.pointerId)) {
      touches.set(e.pointerId, { x: e.clientX, y: e.clientY });
      if (pinch && touches.size >= 2) {
        const [a, b] = [...touches.values()];
        const d = Math.max(1, Math.hypot(a.x - b.x, a.y - b.y));
        const m = viewportPoint((a.x + b.x) / 2, (a.y + b.y) / 2);
        const lo = Math.min(fitScale(), 1) / 4;
        const scale = Math.min(MAX_SCALE, Math.max(lo, pinch.scale * d / pinch.d));
        // The photo point that was under the fingers' midpoint follows it.
        view.x = m[0] - (pinch.m[0] - pinch.x) * scale / pinch.scale;
        view.y = m[1] - (pinch.m[1] - pinch.y) * scale / pinch.scale;
        view.scale = scale;
        view.fitted = false;
        applyView();
        return;
      }
    }
    if (pan && e.pointerId === pan.id) {
      view.x = pan.vx + e.clientX - pan.x;
      view.y = pan.vy + e.clientY - pan.y;
      view.fitted = false;
      applyView();
      return;
    }
    if (!gesture || e.pointerId !== gesture.id) return;
    const events = e.getCoalescedEvents ? e.getCoalescedEvents() : [e];
    for (const ev of (events.length ? events : [e])) {
      const p = toPhoto(ev.clientX, ev.clientY);
      const last = gesture.points[gesture.points.length - 1];
      if (gesture.tool === 'rect') gesture.points = [gesture.points[0], p];
      else if (p[0] !== last[0] || p[1] !== last[1]) gesture.points.push(p);
    }
    repaintMarks();
  });

  function endPointer(e, cancelled) {
    if (e.pointerType === 'touch' && touches.has(e.pointerId)) {
      touches.delete(e.pointerId);
      if (touches.size < 2) pinch = null;
      if (touches.size === 0) touchLock = false;
    }
    if (pan && e.pointerId === pan.id) {
      pan = null;
      draw.classList.remove('panning');
      return;
    }
    if (!gesture || e.pointerId !== gesture.id) return;
    const g = gesture;
    gesture = null;
    if (!cancelled && g.tool === 'rect') g.points = [g.points[0], toPhoto(e.clientX, e.clientY)];
    repaintMarks();
    if (!cancelled) sendMark(g);
  }
  draw.addEventListener('pointerup', (e) => endPointer(e, false));
  draw.addEventListener('pointercancel', (e) => endPointer(e, true));

  function sendMark(g) {
    const pts = g.points;
    if (g.tool === 'rect') {
      const [a, b] = pts;
      const rect = {
        x1: Math.min(a[0], b[0]), y1: Math.min(a[1], b[1]),
        x2: Math.max(a[0], b[0]), y2: Math.max(a[1], b[1]),
      };
      if (rect.x2 - rect.x1 < 2 || rect.y2 - rect.y1 < 2) {
        setStatus('The rectangle is too small: drag it round the object.', true);
        return;
      }
      request('rect', rect, 'Rectangle ' + rect.x1 + ',' + rect.y1 + '–' + rect.x2 + ',' + rect.y2,
        { tool: 'rect', points: [[rect.x1, rect.y1], [rect.x2, rect.y2]] });
    } else if (g.tool === 'loop') {
      if (pts.length < 3) {
        setStatus('The loop is too short: draw round the object.', true);
        return;
      }
      request('loop', { points: pts }, 'Loop of ' + pts.length + ' points', g);
    } else {
      const object = g.tool === 'object';
      const edit = ui.edit.checked;
      request('stroke', { points: pts, object, width: g.width, edit },
        (edit ? 'Edit by ' : '') + (object ? 'object' : 'background') + ' stroke', g);
    }
  }

  viewport.addEventListener('wheel', (e) => {
    if (!pg.state) return;
    e.preventDefault();
    const unit = e.deltaMode === 1 ? 16 : e.deltaMode === 2 ? viewport.clientHeight : 1;
    const [cx, cy] = viewportPoint(e.clientX, e.clientY);
    zoomTo(view.scale * Math.exp(-e.deltaY * unit * 0.002), cx, cy);
  }, { passive: false });

  // --- keys -----------------------------------------------------------------

  function setTool(value) {
    const radio = document.querySelector(`input[name="tool"][value="${value}"]`);
    radio.checked = true;
    hintEl.textContent = HINTS[value];
  }

  function toggleHelp(open) {
    ui.help.hidden = !open;
    if (open) ui.helpClose.focus();
  }

  function setMenu(open) {
    document.body.classList.toggle('menu-open', open);
    ui.more.setAttribute('aria-expanded', String(open));
  }

  document.addEventListener('keydown', (e) => {
    const key = e.key;
    const mod = e.ctrlKey || e.metaKey;
    if (!ui.help.hidden) {
      if (key === 'Escape' || key === '?') {
        e.preventDefault();
        toggleHelp(false);
      }
      return;
    }
    if (key === 'Escape') {
      e.preventDefault();
      if (gesture) {
        gesture = null;
        repaintMarks();
      } else if (pg.busy && cancellable) {
        cancelCut();
      } else {
        setMenu(false);
      }
      return;
    }
    if (mod && !e.altKey) {
      const k = key.toLowerCase();
      if (k === 'z' || k === 'y') {
        e.preventDefault();
        const redo = k === 'y' || e.shiftKey;
        if (pg.busy || pg.stale) return;
        if (redo ? pg.state.canRedo : pg.state.canUndo) request(redo ? 'redo' : 'undo');
        return;
      }
      if (key === '+' || key === '=' || key === '-' || key === '0') {
        // Ctrl with + - 0 would zoom the whole page; zoom the photo instead.
        e.preventDefault();
        if (key === '0') fit(); else zoomStep(key === '-' ? -1 : 1);
      }
      return;
    }
    if (e.altKey) return;
    const target = e.target;
    if (target && target.tagName === 'INPUT' && target.type === 'text') return;
    if (key === ' ') {
      // Held space turns a drag into a move of the view; it must not press the
      // button that has the focus.
      e.preventDefault();
      spaceDown = true;
      draw.classList.add('pan');
      return;
    }
    const lower = key.length === 1 ? key.toLowerCase() : key;
    if (TOOL_KEYS[lower]) {
      setTool(TOOL_KEYS[lower]);
    } else if (key === '+' || key === '=') {
      zoomStep(1);
    } else if (key === '-' || key === '_') {
      zoomStep(-1);
    } else if (key === '0') {
      fit();
    } else if (key === '1') {
      zoomTo(1);
    } else if (lower === 'e') {
      ui.edit.checked = !ui.edit.checked;
    } else if (lower === 'm') {
      ui.overlay.checked = !ui.overlay.checked;
      schedulePaint();
    } else if (key === '[' || key === ']') {
      const v = Number(widthInput.value);
      const next = key === '[' ? Math.max(Number(widthInput.min), Math.round(v / 1.25))
        : Math.min(Number(widthInput.max), Math.round(v * 1.25) + 1);
      widthInput.value = String(next);
      ui.widthValue.value = widthInput.value;
    } else if (key === '?' || lower === 'h') {
      toggleHelp(true);
    } else {
      return;
    }
    e.preventDefault();
  });
  document.addEventListener('keyup', (e) => {
    if (e.key === ' ') {
      e.preventDefault();
      spaceDown = false;
      draw.classList.remove('pan');
    }
  });
  window.addEventListener('blur', () => {
    spaceDown = false;
    draw.classList.remove('pan');
  });

  // --- buttons --------------------------------------------------------------

  ui.undo.addEventListener('click', () => request('undo'));
  ui.redo.addEventListener('click', () => request('redo'));
  ui.reset.addEventListener('click', () => { setMenu(false); request('reset'); });
  ui.cancel.addEventListener('click', cancelCut);
  ui.busyCancel.addEventListener('click', cancelCut);
  ui.reload.addEventListener('click', () => location.reload());
  ui.overlay.addEventListener('change', schedulePaint);
  ui.zoomIn.addEventListener('click', () => zoomStep(1));
  ui.zoomOut.addEventListener('click', () => zoomStep(-1));
  ui.zoomFit.addEventListener('click', fit);
  ui.zoom100.addEventListener('click', () => zoomTo(1));
  ui.more.addEventListener('click', () => setMenu(!document.body.classList.contains('menu-open')));
  ui.helpButton.addEventListener('click', () => { setMenu(false); toggleHelp(true); });
  ui.helpClose.addEventListener('click', () => toggleHelp(false));
  ui.help.addEventListener('click', (e) => { if (e.target === ui.help) toggleHelp(false); });
  viewport.addEventListener('pointerdown', () => setMenu(false));
  widthInput.addEventListener('input', () => { ui.widthValue.value = widthInput.value; });
  document.querySelectorAll('input[name="tool"]').forEach((r) =>
    r.addEventListener('change', () => { hintEl.textContent = HINTS[tool()]; }));

  ui.file.addEventListener('change', async () => {
    const file = ui.file.files[0];
    ui.file.value = '';
    setMenu(false);
    if (!file) return;
    const s = pg.state;
    if (s && file.size > s.limits.maxUploadBytes) {
      setStatus(file.name + ' is larger than ' + (s.limits.maxUploadBytes >> 20) + ' MB.', true);
      finish(true);
      return;
    }
    if (pg.busy) {
      setStatus('A request is still running: wait for it or cancel it (Esc).', true);
      return;
    }
    setBusy(true, false, 'Opening ' + file.name);
    setStatus('Opening ' + file.name + '…');
    const t0 = performance.now();
    const { status, body } = await api('/api/photo?name=' + encodeURIComponent(file.name), {
      method: 'POST', headers: { 'Content-Type': file.type || 'application/octet-stream' }, body: file,
    });
    let isError = status !== 200;
    if (isError) {
      setStatus(file.name + ' was not opened: ' + (body.error || 'the server gave no reason.'), true);
    } else {
      try {
        // A new photo from this page makes it current again.
        pg.stale = false;
        ui.stale.hidden = true;
        await applyState(body.state);
        await painted();
        setStatus('Opened ' + file.name + ' (' + body.state.width + ' × ' + body.state.height +
          ') in ' + fmt(performance.now() - t0) + ' ms.');
      } catch (e) {
        isError = true;
        setStatus(e.message, true);
      }
    }
    setBusy(false, false);
    finish(isError);
  });

  const resized = new ResizeObserver(() => {
    if (!pg.state) return;
    sizeCanvases();
    if (view.fitted) fit(); else applyView();
  });
  resized.observe(viewport);

  // Another tab, or a restarted server, may have changed what this page
  // shows; the page looks now and then (and whenever it comes back into view)
  // and asks to be reloaded rather than send marks for another picture.
  async function checkCurrent() {
    if (!pg.state || pg.busy || pg.stale || document.visibilityState !== 'visible') return;
    const seq = pg.seq;
    const { status, body } = await api('/api/state');
    if (pg.busy || pg.seq !== seq || pg.stale) return;  // this page acted meanwhile
    if (status === 0) {
      setStatus(body.error, true);
      return;
    }
    if (status !== 200) return;
    if (body.photoId !== pg.state.photoId) {
      showStale('Another photo was opened in another tab, or the server was restarted. Reload the page to work on what is there now.');
    } else if (body.version !== pg.state.version && !body.busy) {
      showStale('The selection was changed in another tab. Reload the page to go on from there.');
    }
  }
  setInterval(checkCurrent, 2000);
  document.addEventListener('visibilitychange', checkCurrent);
  window.addEventListener('focus', checkCurrent);

  (async () => {
    const { status, body } = await api('/api/state');
    if (status !== 200) {
      setStatus('The server has no photo: ' + (body.error || 'it gave no reason.'), true);
      return;
    }
    await applyState(body);
    hintEl.textContent = HINTS[tool()];
    setStatus('Ready: ' + body.photo + ', ' + body.width + ' × ' + body.height + ' pixels. ' +
      HINTS[tool()] + ' Press ? for shortcuts.');
    statusEl.dataset.ready = '1';
    finish(false);
  })();
})();
