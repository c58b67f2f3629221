// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Draws Vega's charts as SVG. Colours are the custom properties of style.css, so that
// charts follow the colour scheme and the printer without being drawn again.

const charts = JSON.parse(document.getElementById('charts').textContent);

const chartConfig = {
  background: null,
  font: 'system-ui, -apple-system, "Segoe UI", Roboto, "Helvetica Neue", Arial, sans-serif',
  group: {stroke: null},
  title: {color: 'var(--text)', fontSize: 12, fontWeight: 600, dy: 0},
  axis: {
    domain: false, ticks: false, gridColor: 'var(--line)', tickColor: 'var(--line)',
    labelColor: 'var(--muted)', labelFontSize: 11, labelPadding: 6, labelFont:
      'system-ui, -apple-system, "Segoe UI", Roboto, "Helvetica Neue", Arial, sans-serif',
  },
  axisBottom: {domain: true, domainColor: 'var(--line)'},
};

// Vega's own modules, put together as its main package does, without maps and the like.
const {parse} = vega('vega-parser');
const {View} = vega('vega-view');
const {transforms} = vega('vega-dataflow');
for (const name of ['vega-transforms', 'vega-view-transforms', 'vega-encode']) {
  Object.assign(transforms, vega(name));
}
const {expressionInterpreter} = vega('vega-interpreter');
// Nothing is loaded from anywhere.
const noLoader = {
  load: () => Promise.reject(new Error('reports load nothing')),
  sanitize: () => Promise.reject(new Error('reports load nothing')),
  http: null, file: null,
};

const tip = document.getElementById('tip');

/** Shows what a mark stands for: a text, or an object whose member "title" heads the others. */
function showTip(handler, event, item, value) {
  tip.replaceChildren();
  tip.hidden = !isKnown(value) || value === '';
  if (tip.hidden) {
    return;
  }
  for (const [name, text] of Object.entries(typeof value === 'object' ? value : {title: value})) {
    tip.append(name === 'title' ? element('strong', {}, foreign(String(text)))
                                : element('div', {}, `${name}: `, foreign(String(text))));
  }
  const x = Math.min(event.clientX + 14, innerWidth - tip.offsetWidth - 8);
  const below = event.clientY + 18;
  const y = below + tip.offsetHeight > innerHeight ? event.clientY - tip.offsetHeight - 10 : below;
  tip.style.transform = `translate(${Math.max(4, x)}px, ${Math.max(4, y)}px)`;
}

/** Draws a chart as wide as its place, again when that changes. */
function drawChart(place, parts) {
  const chart = JSON.parse(JSON.stringify(charts[parts.chart]));
  Object.assign(chart, {
    autosize: {type: 'fit-x', contains: 'padding'},
    width: Math.max(200, place.clientWidth),
    description: parts.describe,
  });
  for (const signal of chart.signals || []) {
    if (parts.signals && signal.name in parts.signals) {
      signal.value = parts.signals[signal.name];
    }
  }
  const values = parts.values;
  for (const data of chart.data) {
    data.values = values[data.name] || [];
  }
  const view = new View(parse(chart, chartConfig, {ast: true}),
                        {expr: expressionInterpreter, renderer: 'svg', loader: noLoader, hover: true});
  view.tooltip(showTip).initialize(place).run();
  new ResizeObserver(() => {
    const width = Math.max(200, place.clientWidth);
    if (width !== view.width()) {
      view.width(width).runAsync();
    }
  }).observe(place);
  if (parts.use) {
    parts.use(view);
  }
}
