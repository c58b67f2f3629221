// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Tables, and the figures that hold a chart and its table.

/**
 * @param {string} caption read out by screen readers
 * @param {Array<{title: string, text: function(Object): (string|Node), number: boolean}>} columns
 *     the first one names the row
 */
function makeTable(caption, columns, rows) {
  const head = element('tr');
  for (const column of columns) {
    head.append(element('th', {scope: 'col', class: column.number ? 'number' : 'text'}, column.title));
  }
  const body = element('tbody');
  for (const row of rows) {
    const cells = columns.map((column, i) =>
      element(i === 0 ? 'th' : 'td',
              i === 0 ? {scope: 'row'} : {class: column.number ? 'number' : 'text'},
              column.text(row)));
    body.append(element('tr', {}, ...cells));
  }
  const table = element('table', {'aria-label': caption}, element('thead', {}, head), body);
  return element('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': caption}, table);
}

/**
 * Adds a figure to a section.
 * @param {{title: string, text: string, chart: string, fill: function(Object),
 *     describe: string, nothing: string, table: Node, legend: Node, open: boolean}} parts
 *     nothing: shown in place of the chart if there is no data
 */
function addFigure(section, parts) {
  const figure = element('figure', {'data-figure': parts.title});
  figure.append(element('figcaption', {}, element('strong', {}, parts.title),
                        element('span', {}, parts.text)));
  section.append(figure);
  if (parts.nothing) {
    figure.append(element('p', {class: 'nothing'}, parts.nothing));
    return;
  }
  if (parts.legend) {
    figure.append(parts.legend);
  }
  if (parts.chart) {
    const place = element('div', {class: 'chart'});
    figure.append(place);
    drawChart(place, parts);
  }
  if (parts.table) {
    const details = element('details', parts.open ? {open: ''} : {},
                            element('summary', {}, 'The same as a table'), parts.table);
    figure.append(details);
  }
}

const figureColumns = [
  {title: 'Playbacks', number: true, text: (row) => formatCount(row.playbacks)},
  {title: 'Start-up, median', number: true, text: (row) => formatLength(row.startup_ms.p50)},
  {title: '95th percentile', number: true, text: (row) => formatLength(row.startup_ms.p95)},
  {title: 'Failed', number: true, text: (row) => formatShare(row.failed.rate)},
  {title: '95 % interval', number: true, text: (row) => formatRange(row.failed)},
  {title: 'Left before start', number: true, text: (row) => formatShare(row.exits_before_start.rate)},
  {title: 'Lost', number: true, text: (row) => formatShare(row.lost.rate)},
  {title: 'Stalled time', number: true, text: (row) => formatShare(row.connection_stalled_ratio)},
  {title: 'Stalls an hour', number: true,
   text: (row) => isKnown(row.stalls_per_hour) ? row.stalls_per_hour.toFixed(2) : NOTHING},
];
