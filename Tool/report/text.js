// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Numbers and times as texts, and elements of the page. Texts of players only ever become text
// nodes: nothing here or in the other files parses HTML.

const NOTHING = '–';

/** @returns {boolean} whether the store tells the value */
function isKnown(value) {
  return value !== null && value !== undefined;
}

function formatCount(value) {
  return isKnown(value) ? Math.round(value).toLocaleString('en-US') : NOTHING;
}

/** @param {number} digits significant ones of the percentage */
function formatShare(rate, digits = 2) {
  if (!isKnown(rate)) {
    return NOTHING;
  }
  const percent = rate * 100;
  if (percent === 0 || percent === 100) {
    return `${percent}\u00a0%`;
  }
  const decimals = percent >= 10 ? 1 : Math.min(3, digits - 1 - Math.floor(Math.log10(percent)));
  return `${percent.toFixed(decimals)}\u00a0%`;
}

/** 840 ms, 1.48 s, 2 min 5 s, 3 h 12 min */
function formatLength(ms) {
  if (!isKnown(ms)) {
    return NOTHING;
  }
  if (ms < 1000) {
    return `${Math.round(ms)} ms`;
  }
  if (ms < 60000) {
    return `${Number((ms / 1000).toPrecision(3))} s`;
  }
  if (ms < 3600000) {
    const seconds = Math.round(ms / 1000);
    return `${Math.floor(seconds / 60)} min ${seconds % 60} s`;
  }
  const minutes = Math.round(ms / 60000);
  return `${Math.floor(minutes / 60).toLocaleString('en-US')} h ${minutes % 60} min`;
}

/** @param {string} iso in UTC */
function formatTime(iso) {
  return isKnown(iso) ? `${iso.slice(0, 10)} ${iso.slice(11, 16)} UTC` : NOTHING;
}

function formatBucket(ms, unit) {
  const iso = new Date(ms).toISOString();
  return unit < 86400000 ? formatTime(iso) : iso.slice(0, 10);
}

/** The interval of a share: 2.7–4.0 % */
function formatRange(share) {
  return isKnown(share.low) ? `${formatShare(share.low).slice(0, -2)}–${formatShare(share.high)}`
                            : NOTHING;
}

function plural(count, one, many) {
  return `${formatCount(count)} ${count === 1 ? one : many || `${one}s`}`;
}

/**
 * @param {string} name of the element
 * @param {Object<string, string>} attributes never from players
 * @param {...(Node|string)} children strings become text nodes
 */
function element(name, attributes, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes || {})) {
    made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

/** A text of a player, whose direction must not spread to its surroundings. */
function foreign(text) {
  return element('bdi', {}, text);
}
