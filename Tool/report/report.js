// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Fills the page with the data.

const report = JSON.parse(document.getElementById('data').textContent);

function section(id) {
  return document.getElementById(id);
}

function describeScope() {
  const application = report.selected_application;
  const parts = [];
  if (report.all.playbacks > 0) {
    const [first, last] = [formatTime(report.first), formatTime(report.last)];
    parts.push(`${plural(report.all.playbacks, 'playback')} that began ` +
               (first === last ? `at ${first}` : `from ${first} to ${last}`));
  }
  if (isKnown(report.since)) {
    parts.push(`selected: since ${formatTime(report.since)}`);
  }
  if (isKnown(report.until)) {
    parts.push(`selected: before ${formatTime(report.until)}`);
  }
  const scope = section('scope');
  scope.append(element('strong', {}, application ? foreign(application) : 'All applications'));
  parts.forEach((part) => scope.append(` · ${part}`));
  section('made').append(`Made ${formatTime(report.made)} by tallyra. All times are UTC. This file ` +
                         'loads nothing and sends nothing.');
}

/** The bounds of a histogram's axis, at least a factor of 16 apart. */
function boundsOf(bins) {
  const bounds = {low: bins[0].from, high: bins.at(-1).to};
  const missing = Math.max(1, Math.sqrt(16 * bounds.low / bounds.high));
  return {low: bounds.low / missing, high: bounds.high * missing};
}

function addHistogram(place, title, what, text, bins, times, none) {
  const total = bins.reduce((sum, bin) => sum + bin.n, 0);
  const label = (bin) => `${formatLength(bin.from)} to ${formatLength(bin.to)}`;
  const marks = [['Median', times.p50], ['95th pct.', times.p95]].map(([name, at], i) =>
    ({at: Math.max(10, at), text: `${name} ${formatLength(at)}`, align: i === 0 ? 'right' : 'left'}));
  addFigure(place, {
    title, text, chart: 'histogram',
    nothing: total === 0 ? none : '',
    describe: `Histogram of ${formatCount(total)}: median ${formatLength(times.p50)}, ` +
              `95th percentile ${formatLength(times.p95)}`,
    signals: total === 0 ? {} : boundsOf(bins),
    values: {marks, bins: bins.map((bin) => ({
      ...bin, tip: {title: label(bin), [what]: formatCount(bin.n), Share: formatShare(bin.n / total)},
    }))},
    table: makeTable(title, [
      {title: 'Time', text: label},
      {title: what, number: true, text: (bin) => formatCount(bin.n)},
      {title: 'Share', number: true, text: (bin) => formatShare(bin.n / total)},
    ], bins),
  });
}

function addStarting() {
  const pair = element('div', {class: 'pair'});
  section('starting').append(pair);
  addHistogram(pair, 'Start-up time', 'Playbacks',
               'From START to the first frame. The axis is logarithmic.',
               report.startup, report.all.startup_ms, 'No playback has both a START and a first frame.');
  addHistogram(pair, 'Length of stalls', 'Stalls',
               'Stalls that the connection caused. The axis is logarithmic.',
               report.stall, report.all.stall_ms, 'No playback stalled because of the connection.');
}

const ENDINGS = [
  ['start failure', 'start_failures', 'Start failures'],
  ['playback failure', 'playback_failures', 'Playback failures'],
  ['exit before start', 'exits_before_start', 'Left before the start'],
  ['lost', 'lost', 'Lost'],
];

/** The endings of one bucket as parts of a bar, each out of all its playbacks. */
function stackEndings(bucket) {
  let from = 0;
  return ENDINGS.map(([ending, member]) => {
    const to = from + bucket[member].n / bucket.playbacks;
    const part = {time: bucket.time, end: bucket.end, ending, from, to};
    from = to;
    return part;
  });
}

function trendTip(bucket, unit) {
  const tips = {title: formatBucket(bucket.time, unit), Playbacks: formatCount(bucket.playbacks)};
  ENDINGS.forEach(([, member, title]) => {
    tips[title] = formatCount(bucket[member].n);
  });
  tips['Stalled time'] = formatShare(bucket.connection_stalled_ratio);
  tips['Start-up'] = `${formatLength(bucket.startup_ms.p50)}, 95 of 100 at most ` +
                     formatLength(bucket.startup_ms.p95);
  return tips;
}

function makeLegend(entries) {
  return element('ul', {class: 'legend'}, ...entries.map(([name, fill, sign]) =>
    element('li', {}, sign ? element('i', {class: 'mark'}, sign) : element('i', {class: `fill-${fill}`}),
            name)));
}

function addTrend() {
  const {buckets, unit_ms: unit, outside} = report.trend;
  if (buckets.length === 0) {
    addFigure(section('trend'), {title: 'By day', text: '', nothing:
      'All playbacks began in the future, so a clock was wrong.'});
    return;
  }
  const last = buckets.at(-1).time + unit;
  const first = Math.min(buckets[0].time, last - 8 * unit);
  const rows = buckets.map((bucket) => ({
    ...bucket, end: bucket.time + unit,
    ratio: bucket.connection_stalled_ratio, p50: bucket.startup_ms.p50, p95: bucket.startup_ms.p95,
    tip: trendTip(bucket, unit),
  }));
  const name = unit < 86400000 ? 'hour' : 'day';
  const left = outside === 0 ? '' : ` ${plural(outside, 'playback')} began outside of the time shown, ` +
    'perhaps because a clock was wrong.';
  addFigure(section('trend'), {
    title: `By ${name}`,
    text: `Of the beginning of the playback.${left}`,
    chart: 'trend',
    describe: `Playbacks, their endings, stalled time and start-up time of ${plural(rows.length, name)}`,
    legend: makeLegend([['Start failures', 'start-failed'], ['Playback failures', 'failed'],
                        ['Left before the start', 'other-stall'], ['Lost', 'lost']]),
    signals: {unit, first, last}, values: {buckets: rows, endings: rows.flatMap(stackEndings)},
    table: makeTable(`By ${name}`, [
      {title: name === 'hour' ? 'Hour' : 'Day', text: (row) => formatBucket(row.time, unit)},
      ...figureColumns], buckets),
  });
}

function groupTip(group) {
  return {
    title: group.name,
    Playbacks: formatCount(group.playbacks),
    'Start-up': `median ${formatLength(group.startup_ms.p50)}, 95 of 100 at most ` +
                formatLength(group.startup_ms.p95),
    Failed: `${formatShare(group.failed.rate)} (${formatRange(group.failed)})`,
    'Stalled time': formatShare(group.connection_stalled_ratio),
    Lost: `${formatShare(group.lost.rate)} (${formatRange(group.lost)})`,
  };
}

/** Lost ones bound what the share of failures leaves out. */
function sizeOf(group) {
  const lost = group.lost.n === 0 ? '' : `, ${formatShare(group.lost.rate)} lost`;
  return `${plural(group.playbacks, 'playback')}${lost}`;
}

function addGroups(member, title, text, nothing) {
  const {groups, left_out: leftOut} = report[member];
  const more = leftOut === 0 ? '' : ` The largest ${groups.length} of ${groups.length + leftOut}.`;
  addFigure(section('groups'), {
    title, text: `${text}${more}`, chart: 'groups',
    nothing: groups.length === 0 ? nothing : '',
    describe: `Start-up time, failures and stalled time of ${plural(groups.length, 'group')}`,
    values: {groups: groups.map((group, i) => ({
      key: i, name: group.name, size: sizeOf(group),
      p50: group.startup_ms.p50, p95: group.startup_ms.p95, failed: group.failed.rate,
      low: group.failed.low, high: group.failed.high, ratio: group.connection_stalled_ratio,
      tip: groupTip(group),
    }))},
    table: makeTable(title, [
      {title, text: (group) => foreign(group.name)}, ...figureColumns], groups),
  });
}

function longestOf(names) {
  return Math.max(...names.map((name) => name.length));
}

function addErrors() {
  const rows = report.errors;
  const shown = rows.slice(0, 20);
  const name = (error) => error.name === String(error.code) ? `Error ${error.code}` : error.name;
  addFigure(section('failures'), {
    title: 'By code',
    text: 'Playbacks in which the player reported the error.' +
          (shown.length < rows.length ? ` The chart shows the ${shown.length} most frequent.` : ''),
    chart: 'bars',
    nothing: rows.length === 0 ? 'No playback reported an error.' : '',
    describe: `Playbacks with each of ${plural(shown.length, 'error code')}`,
    signals: {longest: longestOf(shown.map(name))},
    values: {bars: shown.map((error) => ({
      key: error.code, name: name(error), value: error.playbacks,
      colour: error.fatal > 0 ? 'var(--failed)' : 'var(--accent)',
      tip: {title: `${name(error)} (${error.code})`, Playbacks: formatCount(error.playbacks),
            Records: formatCount(error.records), Fatal: formatCount(error.fatal)},
    }))},
    open: true,
    table: makeTable('Errors by code', [
      {title: 'Error', text: (error) => foreign(name(error))},
      {title: 'Code', number: true, text: (error) => String(error.code)},
      {title: 'Playbacks', number: true, text: (error) => formatCount(error.playbacks)},
      {title: 'Fatal', number: true, text: (error) => formatCount(error.fatal)},
      {title: 'Records', number: true, text: (error) => formatCount(error.records)},
      {title: 'Such as', text: (error) => element('code', {}, foreign(error.examples.join(' ')))},
    ], rows),
  });
}

const PHASES = [['Start-up', 'startup'], ['Playing', 'playing'], ['Stalled', 'stalled'],
                ['Stalled after a seek or switch', 'other-stall'], ['Seeking', 'seeking'],
                ['Paused', 'paused'], ['Unknown', 'unknown'], ['Error', '', '✚'], ['Seek', '', '▶'],
                ['Pause', '', '■'], ['Stop', '', '◆'], ['Rendition', '', '▲']];

function timelineValues(playbacks) {
  const longest = Math.max(...playbacks.map((playback) => playback.length_ms), 1);
  const values = {playbacks: [], phases: [], events: []};
  playbacks.forEach((playback, key) => {
    const whole = Math.max(playback.length_ms, 1);
    const waited = `waited ${formatLength(playback.waited_ms)} of ${formatLength(playback.length_ms)}`;
    values.playbacks.push({key, longest, name: playback.title || '(no title)',
                           summary: `${playback.end} · ${waited}`,
                           brief: `waited ${formatLength(playback.waited_ms)}`});
    // Waits last: they are drawn at least 2 pixels wide, above what follows them.
    const isWait = ([kind]) => !['playing', 'paused', 'unknown'].includes(kind);
    const phases = [...playback.phases].sort((a, b) => isWait(a) - isWait(b));
    phases.forEach(([kind, begin, end]) => values.phases.push(
      {key, whole, kind, begin, end, least: isWait([kind]) ? 2 : 0,
       tip: {title: `${kind}, ${formatLength(end - begin)}`, From: formatLength(begin),
             Playback: playback.title || playback.playback}}));
    playback.events.forEach(([kind, at, name]) => values.events.push(
      {key, whole, kind, at, tip: {title: name, At: formatLength(at)}}));
  });
  return values;
}

/** Lets the reader draw all timelines to one scale. */
function offerSharedScale(view) {
  const box = element('input', {type: 'checkbox'});
  box.addEventListener('change', () => view.signal('shared', box.checked).runAsync());
  view.container().closest('figure').querySelector('.legend')
    .after(element('label', {class: 'choice'}, box, 'Draw all to the same scale of time'));
}

function addWorst() {
  const rows = report.worst;
  addFigure(section('worst'), {
    title: rows.length > 1 ? `The worst ${rows.length} playbacks` : 'The worst playback',
    text: 'Ordered by the time that the viewer waited for a picture, in start-up, seeks and stalls. ' +
          '30 seconds are added to that of a playback that failed, so a failure can stand above a ' +
          'longer wait. Each bar is one playback, from its beginning to its end.',
    chart: 'timelines', describe: `Timelines of ${plural(rows.length, 'playback')}`,
    nothing: rows.length === 0 ? 'No viewer waited.' : '',
    legend: makeLegend(PHASES), values: timelineValues(rows), use: offerSharedScale,
    table: makeTable('The worst playbacks', [
      {title: 'Title', text: (row) => foreign(row.title || '(no title)')},
      {title: 'Application', text: (row) => foreign(`${row.application} ${row.version}`)},
      {title: 'Began', text: (row) => formatTime(row.begin)},
      {title: 'End', text: (row) => row.end},
      {title: 'Start-up', number: true, text: (row) => formatLength(row.startup_ms)},
      {title: 'Stalls', number: true, text: (row) => formatCount(row.stalls)},
      {title: 'Stalled', number: true, text: (row) => formatLength(row.stalled_ms)},
      {title: 'Waited', number: true, text: (row) => formatLength(row.waited_ms)},
      {title: 'Errors', number: true, text: (row) => formatCount(row.errors)},
      {title: 'Playback', text: (row) => element('code', {}, foreign(row.playback))},
    ], rows),
  });
}

const LOSSES = {
  rate: 'a user sent more records a second than allowed',
  bytes: 'a message was too big, or a user sent too many bytes a second',
  busy: 'the service had no memory left for waiting calls',
  full: 'the store could not be written: full disk, lock or damage',
  policy: 'the policy refuses the application',
  binding: 'the application is bound to other users',
  bad_batch: 'a batch was malformed',
  sender: 'the bus could not tell the sender',
  age: 'dropped because it was too old',
  room: 'dropped because the store was too big',
  damaged: 'could not be read from a damaged store',
  forgotten: 'deleted by an operator',
};

function addLosses() {
  const rows = report.losses || [];
  const isFleet = report.losses === null;
  const reasons = new Map();
  rows.forEach((row) => reasons.set(row.reason, (reasons.get(row.reason) || 0) + row.records));
  const why = (reason) => LOSSES[reason] || reason;
  const total = rows.reduce((sum, row) => sum + row.records, 0);
  addFigure(section('losses'), {
    title: 'Records that are not in the store',
    text: (isFleet ? '' : 'By reason, as far as the service counted them. Besides: ') +
          `${plural(report.all.lost.n, 'playback')} ` +
          `without STOP, ${plural(report.clock_steps, 'step')} of a clock during playbacks.`,
    chart: 'bars', nothing: isFleet ? 'Each device counts its lost records itself.' :
      rows.length === 0 ? 'The service lost no record that it knows of.' : '',
    describe: `${plural(total, 'lost record')} by reason`,
    signals: {longest: longestOf([...reasons.keys()])},
    values: {bars: [...reasons].map(([reason, records]) => ({
      key: reason, name: reason, value: records, colour: 'var(--lost)',
      tip: {title: why(reason), Records: formatCount(records)},
    }))},
    open: true,
    table: makeTable('Losses', [
      {title: 'Reason', text: (row) => `${row.reason}: ${why(row.reason)}`},
      {title: 'Application', text: (row) => foreign(row.application || '(not known)')},
      {title: 'Records', number: true, text: (row) => formatCount(row.records)},
      {title: 'Playbacks', number: true, text: (row) => formatCount(row.playbacks)},
      {title: 'First', text: (row) => formatTime(row.first)},
      {title: 'Last', text: (row) => formatTime(row.last)},
    ], rows),
  });
}

function addPlaybacks() {
  addTiles(section('summary'), report.all);
  addStarting();
  addTrend();
  addGroups('application', 'By application', 'Failed: before or after the first frame, out of the playbacks ' +
            'that started or ended. How lost ones ended is not known.');
  addGroups('version', 'By version', 'The application and its version.');
  addGroups('network', 'By network', 'At the beginning of the playback.');
  addGroups('signal', 'By strength of the Wi-Fi signal', 'When buffering first began.',
            'No playback on Wi-Fi told its signal.');
  addErrors();
  addWorst();
}

function addEmpty() {
  section('summary').append(element('div', {class: 'empty'},
    element('strong', {}, 'No playbacks'),
    report.since || report.until || report.selected_application
      ? 'None in the store fits the selection.' : 'The store holds none yet.'));
  ['starting', 'trend', 'groups', 'failures', 'worst'].forEach((id) => section(id).remove());
}

function openTablesForPrint() {
  let closed = [];
  addEventListener('beforeprint', () => {
    closed = [...document.querySelectorAll('details:not([open])')];
    closed.forEach((details) => { details.open = true; });
  });
  addEventListener('afterprint', () => closed.forEach((details) => { details.open = false; }));
}

describeScope();
if (report.all.playbacks > 0) {
  addPlaybacks();
} else {
  addEmpty();
}
addLosses();
openTablesForPrint();
