"use strict";
// Figures as words, and the elements that hold them.

function make(tag, text, parent, className) {
  const element = document.createElement(tag);
  if (text !== undefined && text !== null) element.textContent = text;
  if (className) element.className = className;
  if (parent) parent.append(element);
  return element;
}

const two = n => String(n).padStart(2, "0");
const date = t => { const d = new Date(t * 1000);
  return `${d.getFullYear()}-${two(d.getMonth() + 1)}-${two(d.getDate())} ${two(d.getHours())}:${two(d.getMinutes())}:${two(d.getSeconds())}`; };
function bytes(n) {
  if (n < 1000) return n.toFixed(0) + " B";
  if (n < 1e6) return (n / 1e3).toFixed(1) + " kB";
  return n < 1e9 ? (n / 1e6).toFixed(1) + " MB" : (n / 1e9).toFixed(2) + " GB";
}
// In charts, where an axis may count in quarters: no digit is lost and none is idle.
const round = n => +n.toFixed(2);
const rate = n => (n < 1e3 ? round(n) + " B" : n < 1e6 ? round(n / 1e3) + " kB" :
  n < 1e9 ? round(n / 1e6) + " MB" : round(n / 1e9) + " GB") + "/s";
const ms = n => round(n) + " ms";
const percent = n => round(n) + " %";
const span = s => s < 60 ? s.toFixed(1) + " s" : s < 3600 ? `${Math.floor(s / 60)} min ${Math.floor(s % 60)} s`
  : `${Math.floor(s / 3600)} h ${Math.floor(s % 3600 / 60)} min`;
const last = list => list.length ? list[list.length - 1] : null;
const isKnown = value => value !== null && value !== undefined;
const orDash = (value, text) => isKnown(value) ? text(value) : "–";
const counted = (n, one, more) => `${n} ${n === 1 ? one : more}`;
const total = (list, value) => list.reduce((all, entry) => all + value(entry), 0);

// Moments of the time axis.
const DAY = 86400;
const STEPS = [0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 20, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400, 43200,
               DAY, 2 * DAY, 7 * DAY, 30 * DAY];
function tick(s) {
  if (s < 0) return "";
  const text = [[Math.floor(s / DAY), "d"], [Math.floor(s % DAY / 3600), "h"], [Math.floor(s % 3600 / 60), "min"],
                [+(s % 60).toFixed(1), "s"]]
    .filter(([n]) => n).map(([n, unit]) => `${n} ${unit}`).join(" ");
  return text || "0 s";
}

const delayOf = (average, amplitude) => orDash(average, v => `${v} ±${amplitude} ms`);
const savesOf = worth => worth ? worth.words : "–";
const savesClass = worth => !worth || !isKnown(worth.saves) || worth.saves === 0 ? "" : worth.saves > 0 ? "better" : "worse";

// Where the figure of the direct way comes from: nothing measures it.
const directBy = worth => worth.directInForce ? "by the tables in force" : "by the tables of the flow's beginning";

const serverOf = flow => flow.game || "an unknown server";
const nameOf = flow => [flow.number + ".", flow.type, "to", serverOf(flow)].filter(Boolean).join(" ");
const processOf = flow => [flow.process, flow.gameId ? "game " + flow.gameId : null,
  flow.processId ? "process " + flow.processId : null].filter(Boolean).join(", ");
const stayOf = flow => last(flow.stays);
const wayOf = flow => flow.node ? flow.node : flow.failures ? "direct, since no node agreed" : "direct";
const periodOf = (part, ended) => `${tick(round(part.from))} – ${isKnown(part.until) ? tick(round(part.until)) : ended ? "the end" : "now"}`;
// How long the flow has lived, as far as reports tell.
const ageOf = flow => flow.life || flow.last - flow.first;
const NOT_REPORTED = "not reported after the move";
const isUnreported = (flow, stay) => !stay.reported && flow.stays.indexOf(stay) > 0;
