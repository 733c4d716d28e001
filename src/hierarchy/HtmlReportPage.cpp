#include "hierarchy/HtmlReportPage.h"

namespace dhc {

const char* const kReportStyle = R"css(
body { font: 14px/1.4 "DejaVu Sans", Verdana, Arial, sans-serif; margin: 0 16px 24px; color: #111; background: #fafafa; }
h1 { font-size: 20px; margin: 14px 0 2px; }
h2 { font-size: 16px; margin: 18px 0 6px; }
#summary { margin: 0 0 10px; color: #444; }
main { display: flex; flex-wrap: wrap; gap: 18px; align-items: flex-start; }
#map-panel { flex: 1 1 440px; max-width: 760px; }
#tree-panel { flex: 1 1 440px; min-width: 0; }
.controls { display: flex; flex-wrap: wrap; gap: 8px 18px; align-items: center; margin-bottom: 8px; }
.controls label { display: flex; align-items: center; gap: 6px; }
#cut { width: 220px; }
#cut-label { font-weight: bold; min-width: 7em; display: inline-block; }
#map-stack { position: relative; line-height: 0; border: 1px solid #999; background: #000; cursor: crosshair; }
#picture { width: 100%; height: auto; image-rendering: auto; }
#overlay { position: absolute; left: 0; top: 0; width: 100%; height: 100%; image-rendering: pixelated; }
#map-note, #selection { color: #444; font-size: 12px; margin: 6px 0; }
#selection { font-size: 14px; color: #111; min-height: 1.4em; }
#tree { overflow: auto; max-height: 70vh; border: 1px solid #999; background: #fff; }
#tree svg { display: block; max-width: none; }
#tree g.node { cursor: pointer; }
#tree g.node.off-cut { opacity: 0.35; }
#tree g.node.in-cut rect { stroke-width: 2; }
#tree g.node.selected rect { stroke: #000; stroke-width: 4; }
#tree g.cut { cursor: pointer; }
#tree g.cut.current line:first-of-type { stroke: #1a3d8f; stroke-width: 2.5; stroke-dasharray: none; }
#tree g.cut.current text { font-weight: bold; fill: #1a3d8f; }
#info { margin-top: 8px; min-height: 190px; background: #fff; border: 1px solid #ccc; padding: 6px 10px; display: flex; gap: 16px; flex-wrap: wrap; }
#info table td { padding: 0 8px 0 0; }
#info .hint { color: #666; }
table.run td, table.run th { text-align: left; padding: 1px 14px 1px 0; font-weight: normal; }
table.run th { color: #444; }
details { margin-top: 8px; }
)css";

const char* const kReportBody = R"html(
<header><h1 id="title">dhc report</h1><p id="summary"></p></header>
<main>
<section id="map-panel">
  <div class="controls">
    <label for="cut">Cut <input type="range" id="cut" min="0" max="0" step="1" value="0"></label>
    <output id="cut-label" for="cut"></output>
    <label for="opacity">Map opacity <input type="range" id="opacity" min="0" max="100" step="1" value="60"></label>
    <button type="button" id="clear">Clear selection</button>
  </div>
  <div id="map-stack"><img id="picture" alt="false-colour picture of the image"><canvas id="overlay"></canvas></div>
  <p id="selection"></p>
  <p id="map-note"></p>
</section>
<section id="tree-panel">
  <div id="tree"></div>
  <div id="info"><span class="hint">Point at a region of the tree for its statistics and mean spectrum; click it to highlight its pixels; click a dashed line to show that cut.</span></div>
</section>
</main>
<section id="run">
  <h2>Run</h2>
  <table class="run"><tbody>
    <tr><th>Stopped</th><td id="stopping-reason"></td></tr>
    <tr><th>Program</th><td id="program"></td></tr>
  </tbody></table>
  <h2>Timings</h2>
  <table class="run" id="timings"><tbody></tbody></table>
  <details><summary>Settings</summary><table class="run" id="settings"><tbody></tbody></table></details>
</section>
)html";

const char* const kReportScript = R"js(
(function () {
  'use strict';
  const data = JSON.parse(document.getElementById('run-data').textContent);
  const byLabel = new Map();
  data.nodes.forEach(function (n) { byLabel.set(n.label, n); });
  const splits = data.splitOrder.length;
  const rootArea = Math.max(1, byLabel.get(data.root).area);

  function significant(v) {
    if (v >= 100) return v.toFixed(0);
    if (v >= 10) return v.toFixed(1);
    if (v >= 1) return v.toFixed(2);
    return String(Number(v.toPrecision(3)));
  }
  function areaText(pixels) {
    if (!(data.pixelArea > 0)) return pixels + ' px';
    const ha = pixels * data.pixelArea / 1e4;
    return ha < 100 ? significant(ha) + ' ha' : significant(ha / 100) + ' km\u00b2';
  }
  function num(v, digits) { return v === null || v === undefined ? 'none' : Number(v.toPrecision(digits || 3)).toString(); }
  function classesText(k) { return k + (k === 1 ? ' class' : ' classes'); }
  function el(tag, text) { const e = document.createElement(tag); if (text !== undefined) e.textContent = text; return e; }

  // Per final leaf, the chain of regions from the root down to it.
  const chains = data.leaves.map(function (label) {
    const chain = [];
    for (let n = byLabel.get(label); n; n = n.parent === null ? null : byLabel.get(n.parent)) chain.unshift(n);
    return chain;
  });
  // The region of a leaf's chain in the cut after k splits.
  function cutRegion(chain, k) {
    let i = 0;
    while (i + 1 < chain.length && chain[i].splitRank > 0 && chain[i].splitRank <= k) ++i;
    return chain[i];
  }
  // Labels of the regions of the cut after k splits, ascending: the
  // position of a label is its colour, as in the `--cut` maps.
  function cutLabels(k) {
    const set = new Set();
    chains.forEach(function (chain) { const r = cutRegion(chain, k); if (r.area > 0) set.add(r.label); });
    return Array.from(set).sort(function (a, b) { return a - b; });
  }
  function isBelow(node, ancestor) {
    for (let n = node; n; n = n.parent === null ? null : byLabel.get(n.parent)) if (n === ancestor) return true;
    return false;
  }

  const picture = document.getElementById('picture');
  const overlay = document.getElementById('overlay');
  const cutInput = document.getElementById('cut');
  const cutLabel = document.getElementById('cut-label');
  const opacityInput = document.getElementById('opacity');
  const selectionText = document.getElementById('selection');
  const info = document.getElementById('info');
  let leafIndex = null, width = 0, height = 0;
  let cut = splits, selected = null, colours = new Map();

  document.getElementById('title').textContent = data.title ? 'dhc: ' + data.title : 'dhc report';
  document.getElementById('summary').textContent =
    data.rows + ' \u00d7 ' + data.cols + ' pixels, ' + data.bands + (data.bands === 1 ? ' band; ' : ' bands; ') +
    data.nodes.length + ' regions, ' + classesText(data.leaves.length) + ' in the final map, ' +
    splits + (splits === 1 ? ' split' : ' splits') + '; region of interest ' + areaText(rootArea) + '.';
  document.getElementById('map-note').textContent =
    'Picture: bands ' + data.rgb.join(', ') + ' as red, green, blue, each stretched from its 2nd to 98th percentile' +
    (data.step > 1 ? '; one picture pixel per ' + data.step + ' \u00d7 ' + data.step + ' image pixels.' : '.');
  document.getElementById('stopping-reason').textContent =
    data.stoppingReason !== null ? data.stoppingReason : 'not recorded by this run';
  document.getElementById('program').textContent = data.program.name + ' ' + data.program.version;
  const timings = document.querySelector('#timings tbody');
  data.timings.forEach(function (t) {
    const tr = el('tr'); tr.appendChild(el('th', t[0])); tr.appendChild(el('td', t[1] === null ? '' : t[1].toFixed(2) + ' s'));
    timings.appendChild(tr);
  });
  const settings = document.querySelector('#settings tbody');
  Object.keys(data.settings).forEach(function (key) {
    const tr = el('tr'); tr.appendChild(el('th', key)); tr.appendChild(el('td', JSON.stringify(data.settings[key])));
    settings.appendChild(tr);
  });

  // The tree: the dendrogram's SVG, live.
  const treeDiv = document.getElementById('tree');
  treeDiv.appendChild(document.getElementById('tree-svg').content.cloneNode(true));
  // The tree fits the panel's width, but is never shrunk below 60 %: a wide tree scrolls instead.
  const treeSvg = treeDiv.querySelector('svg');
  treeSvg.style.minWidth = Math.round(0.6 * Number(treeSvg.getAttribute('width'))) + 'px';
  treeSvg.style.width = '100%';
  treeSvg.style.height = 'auto';
  const nodeGroups = new Map();
  treeDiv.querySelectorAll('g.node').forEach(function (g) {
    const rect = g.querySelector('rect');
    rect.dataset.fill = rect.getAttribute('fill');
    nodeGroups.set(Number(g.dataset.label), g);
    g.addEventListener('mouseenter', function () { showInfo(byLabel.get(Number(g.dataset.label))); });
    g.addEventListener('click', function (e) { e.stopPropagation(); select(Number(g.dataset.label)); });
  });
  treeDiv.querySelectorAll('g.cut').forEach(function (g) {
    g.addEventListener('click', function () { setCut(Number(g.dataset.splits)); });
  });

  cutInput.max = String(splits);
  cutInput.value = String(cut);

  function setCut(k) {
    cut = Math.max(0, Math.min(splits, k));
    cutInput.value = String(cut);
    update();
  }
  function select(label) {
    selected = selected === label || label === null ? null : label;
    update();
  }

  function update() {
    const labels = cutLabels(cut);
    colours = new Map();
    labels.forEach(function (label, i) { colours.set(label, data.palette[i % data.palette.length]); });
    cutLabel.textContent = classesText(data.cutClasses[cut]);
    treeDiv.querySelectorAll('g.cut').forEach(function (g) {
      g.classList.toggle('current', Number(g.dataset.splits) === cut);
    });
    nodeGroups.forEach(function (g, label) {
      const rect = g.querySelector('rect');
      const c = colours.get(label);
      g.classList.toggle('in-cut', c !== undefined);
      g.classList.toggle('off-cut', c === undefined);
      g.classList.toggle('selected', label === selected);
      rect.setAttribute('fill', c !== undefined ? 'rgb(' + c.join(',') + ')' : rect.dataset.fill);
    });
    const node = selected === null ? null : byLabel.get(selected);
    if (node) {
      selectionText.textContent = 'Selected #' + node.label + ': ' + areaText(node.area) + ', ' +
        (100 * node.area / rootArea).toFixed(1) + ' % of the region of interest' +
        (node.terminal ? ' (a class of the final map)' : '') + '.';
    } else {
      selectionText.textContent = 'Click a region in the tree or on the map to highlight it.';
    }
    draw();
  }

  function draw() {
    if (leafIndex === null) return;
    const ctx = overlay.getContext('2d', { willReadFrequently: true });
    const image = ctx.createImageData(width, height);
    const px = image.data;
    const alpha = Math.round(2.55 * Number(opacityInput.value));
    const node = selected === null ? null : byLabel.get(selected);
    // Per leaf: its colour in this cut and whether it lies in the selection.
    const leafColour = [null], inside = [false];
    chains.forEach(function (chain) {
      leafColour.push(colours.get(cutRegion(chain, cut).label) || [0, 0, 0]);
      inside.push(node !== null && isBelow(chain[chain.length - 1], node));
    });
    for (let p = 0, o = 0; p < leafIndex.length; ++p, o += 4) {
      const leaf = leafIndex[p];
      if (leaf === 0) { px[o + 3] = 0; continue; }
      const c = leafColour[leaf];
      if (node === null) {
        px[o] = c[0]; px[o + 1] = c[1]; px[o + 2] = c[2]; px[o + 3] = alpha;
      } else if (inside[leaf]) {
        px[o] = c[0]; px[o + 1] = c[1]; px[o + 2] = c[2]; px[o + 3] = 255;
      } else {
        px[o] = 0; px[o + 1] = 0; px[o + 2] = 0; px[o + 3] = 170;
      }
    }
    ctx.putImageData(image, 0, 0);
    document.body.dataset.drawn = String(Number(document.body.dataset.drawn || 0) + 1);
  }

  function spectrum(node) {
    const root = byLabel.get(data.root);
    const series = [root.mean, node.mean].filter(function (m) { return m && m.length; });
    if (!series.length) return null;
    const values = [].concat.apply([], series).filter(function (v) { return v !== null; });
    let lo = Math.min.apply(null, values), hi = Math.max.apply(null, values);
    if (hi <= lo) { hi = lo + 1; }
    const w = 260, h = 150, left = 46, right = 10, top = 10, bottom = 28;
    const ns = 'http://www.w3.org/2000/svg';
    const svg = document.createElementNS(ns, 'svg');
    svg.setAttribute('width', w); svg.setAttribute('height', h); svg.setAttribute('class', 'spectrum');
    function add(tag, attrs, text) {
      const e = document.createElementNS(ns, tag);
      Object.keys(attrs).forEach(function (a) { e.setAttribute(a, attrs[a]); });
      if (text !== undefined) e.textContent = text;
      svg.appendChild(e);
      return e;
    }
    const bands = series[series.length - 1].length;
    const x = function (b) { return left + (bands === 1 ? 0.5 : b / (bands - 1)) * (w - left - right); };
    const y = function (v) { return top + (hi - v) / (hi - lo) * (h - top - bottom); };
    add('line', { x1: left, y1: top, x2: left, y2: h - bottom, stroke: '#000' });
    add('line', { x1: left, y1: h - bottom, x2: w - right, y2: h - bottom, stroke: '#000' });
    add('text', { x: left - 4, y: top + 8, 'text-anchor': 'end', 'font-size': 10 }, num(hi, 4));
    add('text', { x: left - 4, y: h - bottom, 'text-anchor': 'end', 'font-size': 10 }, num(lo, 4));
    for (let b = 0; b < bands; ++b)
      add('text', { x: x(b), y: h - bottom + 13, 'text-anchor': 'middle', 'font-size': 10 }, String(b + 1));
    add('text', { x: (left + w - right) / 2, y: h - 3, 'text-anchor': 'middle', 'font-size': 10 }, 'band');
    series.forEach(function (m, i) {
      const points = m.map(function (v, b) { return v === null ? null : x(b) + ',' + y(v); }).filter(Boolean).join(' ');
      const colour = i === series.length - 1 ? (colours.get(node.label) ? 'rgb(' + colours.get(node.label).join(',') + ')' : '#333') : '#999';
      add('polyline', { points: points, fill: 'none', stroke: colour, 'stroke-width': i === series.length - 1 ? 2.5 : 1.5,
                        'stroke-dasharray': i === series.length - 1 ? 'none' : '4 3' });
    });
    return svg;
  }

  function showInfo(node) {
    info.textContent = '';
    const table = el('table');
    function row(k, v) { const tr = el('tr'); tr.appendChild(el('td', k)); tr.appendChild(el('td', v)); table.appendChild(tr); }
    row('region', '#' + node.label + (node.terminal ? ' (class of the final map)' : node.children.length ? ' (split)' : ''));
    row('area', areaText(node.area) + (data.pixelArea > 0 ? ' (' + node.area + ' px)' : '') + ', ' +
        (100 * node.area / rootArea).toFixed(1) + ' %');
    row('depth', String(node.depth));
    if (node.splitRank > 0) {
      row('split rank', node.splitRank + ' (cut after ' + node.splitRank + ': ' + classesText(data.cutClasses[node.splitRank]) + ')');
      row('split gain', num(node.gain) + ' (MRF ' + num(node.gainMRF) + ')');
      row('\u03b2', num(node.beta));
      row('children', node.children.map(function (c) { return '#' + c; }).join(', '));
    }
    if (node.mean.length)
      row('mean', node.mean.map(function (v) { return v === null ? 'none' : v.toFixed(1); }).join(', '));
    info.appendChild(table);
    const plot = spectrum(node);
    if (plot) {
      const box = el('div');
      box.appendChild(el('div', 'mean per band (dashed: whole region of interest)'));
      box.appendChild(plot);
      info.appendChild(box);
    }
  }

  cutInput.addEventListener('input', function () { setCut(Number(cutInput.value)); });
  opacityInput.addEventListener('input', draw);
  document.getElementById('clear').addEventListener('click', function () { select(null); });
  overlay.addEventListener('click', function (e) {
    if (leafIndex === null) return;
    const box = overlay.getBoundingClientRect();
    const px = Math.floor((e.clientX - box.left) / box.width * width);
    const py = Math.floor((e.clientY - box.top) / box.height * height);
    const leaf = leafIndex[py * width + px];
    if (leaf > 0) {
      const region = cutRegion(chains[leaf - 1], cut);
      select(region.label);
      showInfo(region);
    }
  });

  // The leaves per picture pixel come as an image: leaf number = red + 256 green + 65536 blue.
  const leafImage = document.getElementById('leaf-data');
  function decodeLeaves() {
    width = leafImage.naturalWidth; height = leafImage.naturalHeight;
    const canvas = document.createElement('canvas');
    canvas.width = width; canvas.height = height;
    const ctx = canvas.getContext('2d', { willReadFrequently: true });
    ctx.drawImage(leafImage, 0, 0);
    const px = ctx.getImageData(0, 0, width, height).data;
    leafIndex = new Int32Array(width * height);
    for (let p = 0; p < leafIndex.length; ++p) {
      const v = px[4 * p] + 256 * px[4 * p + 1] + 65536 * px[4 * p + 2];
      leafIndex[p] = v <= chains.length ? v : 0;
    }
    overlay.width = width; overlay.height = height;
    picture.src = document.getElementById('picture-data').src;
    update();
    document.body.dataset.ready = '1';
  }
  update();
  if (leafImage.complete && leafImage.naturalWidth > 0) decodeLeaves();
  else leafImage.addEventListener('load', decodeLeaves);
})();
)js";

}  // namespace dhc
