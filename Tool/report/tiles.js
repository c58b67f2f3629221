// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The tiles at the top of the report.

/** Draws an interval and the rate within it, from 0 to a round number above it. */
function drawInterval(share) {
  const top = [0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1].find((bound) => share.high <= bound) || 1;
  const svg = document.createElementNS('http://www.w3.org/2000/svg', 'svg');
  const draw = (name, attributes) => {
    const shape = document.createElementNS('http://www.w3.org/2000/svg', name);
    Object.entries(attributes).forEach(([key, value]) => shape.setAttribute(key, value));
    svg.append(shape);
  };
  const at = (rate) => `${(rate / top * 100).toFixed(2)}%`;
  svg.setAttribute('role', 'img');
  svg.setAttribute('aria-label', `${formatRange(share)}, on a scale up to ${formatShare(top)}`);
  draw('rect', {x: 0, y: 4, width: '100%', height: 2, rx: 1, fill: 'var(--line)'});
  draw('rect', {x: at(share.low), y: 2, width: at(share.high - share.low), height: 6, rx: 3,
                fill: 'var(--accent-soft)'});
  draw('circle', {cx: at(share.rate), cy: 5, r: 4, fill: 'var(--accent)'});
  return element('div', {class: 'range'}, svg,
                 element('div', {class: 'bounds', 'aria-hidden': 'true'},
                         element('span', {}, '0'), element('span', {}, `${top * 100}\u00a0%`)));
}

function addTile(tiles, title, value, unit, ...lines) {
  const number = element('p', {class: 'value'}, value);
  if (unit) {
    number.append(' ', element('small', {}, unit));
  }
  const texts = lines.map((line) => typeof line === 'string' ? element('p', {}, line) : line);
  tiles.append(element('div', {class: 'tile'}, element('h3', {}, title), number, ...texts));
}

function addShareTile(tiles, title, share, of) {
  if (!isKnown(share.rate)) {
    addTile(tiles, title, NOTHING, '', `no playbacks ${of}`);
    return;
  }
  addTile(tiles, title, formatShare(share.rate), '',
          `${formatCount(share.n)} of ${plural(share.of, 'playback')} ${of}`,
          `95 % interval: ${formatRange(share)}`,
          drawInterval(share));
}

function addTimeTile(tiles, title, times, one, many) {
  addTile(tiles, title, formatLength(times.p50), times.n > 0 ? 'median' : '',
          times.n > 0 ? `95 of 100: at most ${formatLength(times.p95)}` : `no ${many}`,
          times.n > 0 ? `99 of 100: at most ${formatLength(times.p99)}` : '',
          times.n > 0 ? plural(times.n, one, many) : '');
}

function addTiles(section, all) {
  const tiles = element('div', {class: 'tiles'});
  addTile(tiles, 'Playbacks', formatCount(all.playbacks), '',
          `${formatCount(all.started)} showed a picture`,
          `${formatLength(all.watched_media_ms)} of media watched`);
  addTimeTile(tiles, 'Start-up time', all.startup_ms, 'start measured', 'starts measured');
  addShareTile(tiles, 'Start failures', all.start_failures, 'that started or ended');
  addShareTile(tiles, 'Exits before start', all.exits_before_start, 'that started or ended');
  addShareTile(tiles, 'Playback failures', all.playback_failures, 'that started');
  addTile(tiles, 'Stalled time', formatShare(all.connection_stalled_ratio), '',
          'by the connection, out of playing and stalled time',
          `${formatShare(all.stalled_ratio)} with stalls after seeks and switches`);
  addTimeTile(tiles, 'Length of a stall', all.stall_ms, 'stall by the connection', 'stalls by the connection');
  addTile(tiles, 'Stalls', isKnown(all.stalls_per_hour) ? all.stalls_per_hour.toFixed(2) : NOTHING,
          isKnown(all.stalls_per_hour) ? 'an hour' : '',
          `${plural(all.stalls, 'stall')} in ${formatLength(all.playing_ms)} of playing`);
  addShareTile(tiles, 'Completed', all.completed, 'whose records tell');
  addShareTile(tiles, 'Lost', all.lost, 'in all');
  if (all.seek_ms.n > 0) {
    addTimeTile(tiles, 'Seek time', all.seek_ms, 'seek measured', 'seeks measured');
  }
  if (all.paused_ms > 0) {
    addTile(tiles, 'Paused', formatLength(all.paused_ms), '', 'in all playbacks together');
  }
  if (isKnown(all.average_kbps)) {
    addTile(tiles, 'Average bit rate', formatCount(all.average_kbps), 'kbit/s',
            `${plural(all.switches, 'change')} of the rendition`);
  }
  if (all.frames_rendered > 0) {
    addTile(tiles, 'Dropped frames',
            formatShare(all.frames_dropped / (all.frames_dropped + all.frames_rendered)), '',
            `${formatCount(all.frames_dropped)} dropped, ${formatCount(all.frames_rendered)} shown`);
  }
  section.append(tiles);
}
