"use strict";
// Numbers as people read them. null and undefined are a dash.

const kUnits = ["", "k", "M", "G", "T"];

function scaled(value, unit) {
  let i = 0;
  while (Math.abs(value) >= 999.5 && i < kUnits.length - 1) {
    value /= 1000;
    ++i;
  }
  const digits = i === 0 || Math.abs(value) >= 99.5 ? 0 : Math.abs(value) >= 9.95 ? 1 : 2;
  return `${value.toFixed(digits)}\u202f${kUnits[i]}${unit}`;
}

const known = (value) => value !== null && value !== undefined;
const asRate = (bps) => (known(bps) ? scaled(bps, "b/s") : "–");
const asBytes = (bytes) => (known(bytes) ? scaled(bytes, "B") : "–");

function asSeconds(seconds) {
  if (!known(seconds)) return "–";
  if (Math.abs(seconds) < 0.9995) return `${(seconds * 1000).toFixed(seconds < 0.01 ? 1 : 0)}\u202fms`;
  return seconds < 99.95 ? `${seconds.toFixed(2)}\u202fs` : `${seconds.toFixed(0)}\u202fs`;
}

// 75.25 as 1:15.25; `step` is the finest difference that must be seen.
function asClock(seconds, step = 0.01) {
  if (!known(seconds)) return "–";
  const digits = step >= 1 ? 0 : step >= 0.1 ? 1 : step >= 0.01 ? 2 : 3;
  const whole = Number(Math.abs(seconds).toFixed(digits));
  const hours = Math.floor(whole / 3600);
  const minutes = Math.floor((whole % 3600) / 60);
  const rest = (whole % 60).toFixed(digits).padStart(digits ? digits + 3 : 2, "0");
  const sign = seconds < 0 && whole > 0 ? "-" : "";
  return hours ? `${sign}${hours}:${String(minutes).padStart(2, "0")}:${rest}` : `${sign}${minutes}:${rest}`;
}

// How a column's values are shown follows from the unit in its name.
function asCell(column, value) {
  if (!known(value)) return "";
  if (typeof value === "boolean") return value ? "yes" : "no";
  if (typeof value !== "number") return value;
  if (/_bps$|^bps$/.test(column)) return asRate(value);
  if (/^(time|start|end|from|until|position|value)_s$/.test(column)) return asClock(value, 0.001);
  if (/_s$/.test(column) && !/_per_s$/.test(column)) return asSeconds(value);
  return value.toLocaleString("en");
}

const kTimeSteps = [0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600,
  900, 1800, 3600, 7200, 14400];

function timeTicks(scale, count) {
  const [from, to] = scale.domain();
  const step = kTimeSteps.find((candidate) => (to - from) / candidate <= count) || 28800;
  return { step, values: d3.range(Math.ceil(from / step) * step, to + step / 1e6, step) };
}

const kRuleTexts = {
  "start": "first decision: one level below what the link is relied on for",
  "quick-start": "stays lowest: there is no index to go by yet",
  "bandwidth-kept": "the estimate gives no reason to move, or moving must wait",
  "bandwidth-up": "the estimate allows a higher level",
  "bandwidth-down": "the estimate does not carry this level",
  "waiting": "no estimate, and downloads are not fast enough to try a level up",
  "exploring-kept": "no estimate; downloads are fast, but not for long enough",
  "exploring-up": "no estimate; a level up is tried",
  "buffer-low": "buffer guard: two levels down",
  "buffer-spent": "buffer guard: to the lowest level",
  "restart": "a jump or an underflow: down by the quick start's drop",
  "cycle": "test mode: all levels in turn",
  "no-rates": "no level has a usable rate",
  "slow-transfer": "a transfer was given up for a lower level",
};

const kEndTexts = {
  "complete": "complete",
  "failed": "failed",
  "jump": "cancelled: a seek, a change of rate or of track",
  "slow-transfer": "cancelled: a lower level brings the cluster sooner",
  "closing": "cancelled: the session or the opening ended",
};
