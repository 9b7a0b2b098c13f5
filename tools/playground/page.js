// The playground page: marks drawn with pointer events (mouse, pen or touch)
// go to the server, which runs them through the library; the page shows the
// library's preview (photo with its outline) and a translucent mask overlay.
'use strict';

(() => {
  const $ = (id) => document.getElementById(id);
  const preview = $('preview');
  const tint = $('tint');
  const draw = $('draw');
  const statusEl = $('status');
  const hintEl = $('hint');
  const widthInput = $('width');
  const ui = {
    undo: $('undo'), redo: $('redo'), reset: $('reset'), cancel: $('cancel'),
    overlay: $('overlay'), edit: $('edit'), file: $('file'), download: $('download'),
    spinner: $('spinner'), widthValue: $('widthValue'),
  };
  const MASK_COLOUR = [40, 150, 255, 110];
  const HINTS = {
    rect: 'Drag a rectangle round the object.',
    loop: 'Draw a closed loop round the object.',
    object: 'Brush over parts that belong to the object.',
    background: 'Brush over parts that do not belong to the object.',
  };

  // Shared with the browser test.
  const pg = window.playground = {
    state: null, timings: [], lastRequest: null, busy: false, seq: 0,
  };
  let maskImage = null;
  let photoVersion = -1;
  let gesture = null;

  const tool = () => document.querySelector('input[name="tool"]:checked').value;
  const fmt = (n) => Math.round(n).toLocaleString('en-US');

  function setStatus(text, isError) {
    statusEl.textContent = text;
    statusEl.classList.toggle('error', !!isError);
  }

  function finish(isError) {
    pg.seq += 1;
    statusEl.dataset.seq = String(pg.seq);
    statusEl.dataset.error = isError ? '1' : '0';
  }

  function setBusy(busy, cancellable) {
    pg.busy = busy;
    ui.cancel.disabled = !(busy && cancellable);
    ui.spinner.hidden = !busy;
    for (const b of [ui.undo, ui.redo, ui.reset]) b.classList.toggle('waiting', busy);
  }

  async function api(path, options) {
    let res;
    try {
      res = await fetch(path, options);
    } catch (e) {
      return { status: 0, body: { error: 'the server cannot be reached (' + e.message + ')' } };
    }
    let body;
    try {
      body = await res.json();
    } catch (e) {
      body = { error: 'the server answered HTTP ' + res.status + ' without a message' };
    }
    return { status: res.status, body };
  }

  function loadImage(img, src) {
    return new Promise((resolve, reject) => {
      img.onload = () => resolve(img);
      img.onerror = () => reject(new Error('cannot load ' + src));
      img.src = src;
    });
  }

  // Sizes the canvases to the displayed photo and repaints the overlay.
  function layout() {
    // The photo fits the space between the toolbar and the status line.
    const main = document.querySelector('main');
    const room = main.clientHeight - 24;
    if (room > 100) preview.style.maxHeight = room + 'px';
    const r = preview.getBoundingClientRect();
    const dpr = window.devicePixelRatio || 1;
    for (const c of [tint, draw]) {
      const w = Math.max(1, Math.round(r.width * dpr));
      const h = Math.max(1, Math.round(r.height * dpr));
      if (c.width !== w || c.height !== h) {
        c.width = w;
        c.height = h;
      }
    }
    paintTint();
  }

  function paintTint() {
    const ctx = tint.getContext('2d');
    ctx.clearRect(0, 0, tint.width, tint.height);
    tint.classList.toggle('hidden', !ui.overlay.checked);
    if (!maskImage || !pg.state || !pg.state.hasMask) return;
    ctx.imageSmoothingEnabled = false;
    ctx.drawImage(maskImage, 0, 0, tint.width, tint.height);
    const data = ctx.getImageData(0, 0, tint.width, tint.height);
    const px = data.data;
    const w = tint.width;
    const inside = new Uint8Array(w * tint.height);
    for (let i = 0, j = 0; j < inside.length; i += 4, j++) inside[j] = px[i] > 127 ? 1 : 0;
    // Translucent inside; an opaque edge keeps the outline visible when a large
    // photo is shown scaled down (the library's 2-pixel outline then thins out).
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
    ctx.putImageData(data, 0, 0);
  }

  // Shows a state from the server: preview, overlay, buttons.
  async function applyState(s) {
    const newPhoto = !pg.state || pg.state.width !== s.width || pg.state.height !== s.height ||
      pg.state.photo !== s.photo;
    pg.state = s;
    if (newPhoto) {
      widthInput.max = String(Math.min(s.limits.maxStrokeWidth, Math.max(200, 4 * s.strokeWidth)));
      widthInput.value = String(s.strokeWidth);
      ui.widthValue.value = String(s.strokeWidth);
    }
    ui.undo.disabled = !s.canUndo;
    ui.redo.disabled = !s.canRedo;
    ui.download.classList.toggle('disabled', !s.hasMask);
    ui.download.setAttribute('aria-disabled', String(!s.hasMask));
    ui.download.href = '/api/mask.png?v=' + s.version;
    if (s.version !== photoVersion) {
      photoVersion = s.version;
      const loads = [loadImage(preview, '/api/preview.png?v=' + s.version)];
      if (s.hasMask) loads.push(loadImage(new Image(), '/api/mask.png?v=' + s.version));
      const [, mask] = await Promise.all(loads);
      maskImage = mask || null;
      layout();
    }
  }

  function describe(s) {
    const total = s.width * s.height;
    if (!s.hasMask) return 'no mask (plain photo)';
    return 'object ' + fmt(s.objectPixels) + ' px (' +
      (100 * s.objectPixels / total).toFixed(1) + ' % of ' + fmt(total) + ')';
  }

  const LABELS = {
    rect: 'rectangle', loop: 'loop', stroke: 'stroke', undo: 'undo', redo: 'redo',
    reset: 'reset', photo: 'photo',
  };

  // One request to the server; returns when the result is on screen.
  async function request(kind, body, label) {
    if (pg.busy) {
      setStatus('A request is still running: wait for it or cancel it.', true);
      finish(true);
      return;
    }
    const cancellable = ['rect', 'loop', 'stroke'].includes(kind);
    setBusy(true, cancellable);
    pg.lastRequest = { kind, body };
    const name = label || LABELS[kind] || kind;
    setStatus(name + ': running…');
    const t0 = performance.now();
    const options = { method: 'POST' };
    if (body !== undefined) {
      options.headers = { 'Content-Type': 'application/json' };
      options.body = JSON.stringify(body);
    }
    const { status, body: answer } = await api('/api/' + kind, options);
    let isError = false;
    try {
      if (status === 200 && answer.cancelled) {
        await applyState(answer.state);
        setStatus(name + ' cancelled after ' + fmt(performance.now() - t0) +
          ' ms; the photo was set up again.');
      } else if (status === 200) {
        const tServer = performance.now() - t0;
        await applyState(answer.state);
        const browserMs = performance.now() - t0;
        pg.timings.push({ kind: name, libraryMs: answer.millis, requestMs: tServer, browserMs });
        let text = name + ': ' + fmt(answer.millis) + ' ms in the library, ' + fmt(browserMs) +
          ' ms in the browser; ' + describe(answer.state);
        if (!answer.delivered && answer.note) text += ' — ' + answer.note;
        setStatus(text);
      } else {
        isError = true;
        setStatus(name + ' refused (HTTP ' + status + '): ' + (answer.error || 'unknown error'), true);
      }
    } catch (e) {
      isError = true;
      setStatus(name + ': ' + e.message, true);
    }
    setBusy(false, false);
    finish(isError);
  }

  // --- drawing --------------------------------------------------------------

  function toPhoto(e) {
    const r = draw.getBoundingClientRect();
    const s = pg.state;
    const x = Math.floor((e.clientX - r.left) * s.width / r.width);
    const y = Math.floor((e.clientY - r.top) * s.height / r.height);
    return [Math.min(s.width - 1, Math.max(0, x)), Math.min(s.height - 1, Math.max(0, y))];
  }

  function redrawGesture() {
    const ctx = draw.getContext('2d');
    ctx.clearRect(0, 0, draw.width, draw.height);
    if (!gesture) return;
    const k = draw.width / pg.state.width;  // photo pixels -> canvas pixels
    const pts = gesture.points;
    ctx.lineJoin = 'round';
    ctx.lineCap = 'round';
    if (gesture.tool === 'rect') {
      const [a, b] = [pts[0], pts[pts.length - 1]];
      const x = Math.min(a[0], b[0]) * k;
      const y = Math.min(a[1], b[1]) * k;
      const w = (Math.abs(b[0] - a[0]) + 1) * k;
      const h = (Math.abs(b[1] - a[1]) + 1) * k;
      ctx.lineWidth = 2;
      ctx.strokeStyle = 'rgba(0,0,0,0.8)';
      ctx.strokeRect(x, y, w, h);
      ctx.setLineDash([6, 4]);
      ctx.strokeStyle = '#fff';
      ctx.strokeRect(x, y, w, h);
      return;
    }
    ctx.beginPath();
    pts.forEach(([px, py], i) => (i ? ctx.lineTo((px + 0.5) * k, (py + 0.5) * k)
      : ctx.moveTo((px + 0.5) * k, (py + 0.5) * k)));
    if (gesture.tool === 'loop') {
      ctx.closePath();
      ctx.fillStyle = 'rgba(74,163,255,0.2)';
      ctx.fill();
      ctx.lineWidth = 2;
      ctx.strokeStyle = '#4aa3ff';
    } else {
      ctx.lineWidth = Math.max(1, gesture.width * k);
      ctx.strokeStyle = gesture.tool === 'object' ? 'rgba(255,255,160,0.75)'
        : 'rgba(255,70,70,0.75)';
    }
    ctx.stroke();
  }

  draw.addEventListener('pointerdown', (e) => {
    if (!pg.state || e.button > 0 || gesture) return;  // one pointer draws at a time
    if (pg.busy) {
      setStatus('A request is still running: wait for it or cancel it.', true);
      return;
    }
    e.preventDefault();
    draw.setPointerCapture(e.pointerId);
    gesture = { tool: tool(), points: [toPhoto(e)], width: Number(widthInput.value), id: e.pointerId };
    redrawGesture();
  });

  draw.addEventListener('pointermove', (e) => {
    if (!gesture || e.pointerId !== gesture.id) return;
    const events = e.getCoalescedEvents ? e.getCoalescedEvents() : [e];
    for (const ev of (events.length ? events : [e])) {
      const p = toPhoto(ev);
      const last = gesture.points[gesture.points.length - 1];
      if (gesture.tool === 'rect') gesture.points = [gesture.points[0], p];
      else if (p[0] !== last[0] || p[1] !== last[1]) gesture.points.push(p);
    }
    redrawGesture();
  });

  function endGesture(e, cancelled) {
    if (!gesture || e.pointerId !== gesture.id) return;
    const g = gesture;
    gesture = null;
    if (!cancelled && g.tool === 'rect') {
      const p = toPhoto(e);
      g.points = [g.points[0], p];
    }
    redrawGesture();
    if (cancelled) return;
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
      request('rect', rect, 'rectangle ' + rect.x1 + ',' + rect.y1 + '–' + rect.x2 + ',' + rect.y2);
    } else if (g.tool === 'loop') {
      if (pts.length < 3) {
        setStatus('The loop is too short: draw round the object.', true);
        return;
      }
      request('loop', { points: pts }, 'loop of ' + pts.length + ' points');
    } else {
      const object = g.tool === 'object';
      const edit = ui.edit.checked;
      request('stroke', { points: pts, object, width: g.width, edit },
        (edit ? 'edit by ' : '') + (object ? 'object' : 'background') + ' stroke');
    }
  }
  draw.addEventListener('pointerup', (e) => endGesture(e, false));
  draw.addEventListener('pointercancel', (e) => endGesture(e, true));

  // --- buttons --------------------------------------------------------------

  ui.undo.addEventListener('click', () => request('undo'));
  ui.redo.addEventListener('click', () => request('redo'));
  ui.reset.addEventListener('click', () => request('reset'));
  ui.cancel.addEventListener('click', async () => {
    ui.cancel.disabled = true;
    const { status, body } = await api('/api/cancel', { method: 'POST' });
    if (status !== 200) setStatus('cancel: ' + (body.error || 'HTTP ' + status), true);
    else setStatus('Cancelling…');
  });
  ui.overlay.addEventListener('change', paintTint);
  widthInput.addEventListener('input', () => { ui.widthValue.value = widthInput.value; });
  document.querySelectorAll('input[name="tool"]').forEach((r) =>
    r.addEventListener('change', () => { hintEl.textContent = HINTS[tool()]; }));

  ui.file.addEventListener('change', async () => {
    const file = ui.file.files[0];
    ui.file.value = '';
    if (!file) return;
    const s = pg.state;
    if (s && file.size > s.limits.maxUploadBytes) {
      setStatus(file.name + ' is larger than ' + (s.limits.maxUploadBytes >> 20) + ' MB.', true);
      finish(true);
      return;
    }
    if (pg.busy) {
      setStatus('A request is still running: wait for it or cancel it.', true);
      return;
    }
    setBusy(true, false);
    setStatus('Opening ' + file.name + '…');
    const t0 = performance.now();
    const { status, body } = await api('/api/photo?name=' + encodeURIComponent(file.name), {
      method: 'POST', headers: { 'Content-Type': file.type || 'application/octet-stream' }, body: file,
    });
    let isError = status !== 200;
    if (isError) {
      setStatus(file.name + ' refused (HTTP ' + status + '): ' + (body.error || 'unknown error'), true);
    } else {
      try {
        await applyState(body.state);
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

  const resized = new ResizeObserver(() => { if (pg.state) layout(); });
  resized.observe(preview);
  resized.observe(document.querySelector('main'));

  (async () => {
    const { status, body } = await api('/api/state');
    if (status !== 200) {
      setStatus('The server has no photo: ' + (body.error || 'HTTP ' + status), true);
      return;
    }
    await applyState(body);
    hintEl.textContent = HINTS[tool()];
    setStatus('Ready: ' + body.photo + ', ' + body.width + ' × ' + body.height + ' pixels. ' +
      HINTS[tool()]);
    statusEl.dataset.ready = '1';
    finish(false);
  })();
})();
