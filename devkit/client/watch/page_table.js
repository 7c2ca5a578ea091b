"use strict";
// The flows as a table: one row for each, and below it one for each of its nodes and trials where
// there is more than one.

const reportedStays = flow => flow.stays.filter(stay => stay.reported);
const sumOf = (flow, key) => flow.stays.some(stay => stay.reported) ? total(flow.stays, stay => stay[key]) : null;
const lacksSome = flow => flow.stays.some(stay => isUnreported(flow, stay));
const hasParts = flow => flow.stays.length > 1 || flow.trials.length > 0;
const stateOf = flow => flow.ended ? "ended" : "open";

// What a measured figure of the only node is, or of the one where the flow is now.
const nowOf = (flow, key) => orNull(stayOf(flow), stay => stay.reported ? stay[key] : null);
const orNull = (value, get) => isKnown(value) ? get(value) : null;

// title, value to sort by, words in the flow's own row, words in a node's row, class
const COLUMNS = [
  ["Saves", f => orNull(f.worth, w => w.saves), f => savesOf(f.worth), stay => savesOf(stay.worth), "number saves"],
  ["Node", wayOf, wayOf, stay => stay.node, "node"],
  ["Way taken", f => orNull(f.worth, w => w.taken), f => orNull(f.worth, w => orDash(w.taken, ms)), stay => orDash(stay.worth.taken, ms)],
  ["Direct", f => orNull(f.worth, w => w.direct), f => orNull(f.worth, w => orDash(w.direct, ms)), stay => orDash(stay.worth.direct, ms)],
  ["Lost", f => nowOf(f, "lost"), f => orDash(nowOf(f, "lost"), v => v.toFixed(1) + " %"), stay => orDash(stay.lost, v => v.toFixed(1) + " %")],
  ["Frontend", f => nowOf(f, "fd"), f => delayOf(nowOf(f, "fd"), nowOf(f, "fa")), stay => delayOf(stay.fd, stay.fa)],
  ["Backend", f => nowOf(f, "bd"), f => delayOf(nowOf(f, "bd"), nowOf(f, "ba")), stay => delayOf(stay.bd, stay.ba)],
  ["Sent", f => sumOf(f, "sentBytes"), f => sumWords(f, "sentBytes"), stay => bytes(stay.sentBytes)],
  ["Received", f => sumOf(f, "recvBytes"), f => sumWords(f, "recvBytes"), stay => bytes(stay.recvBytes)],
  ["Errors", f => sumOf(f, "errors"), f => orDash(sumOf(f, "errors"), String), stay => String(stay.errors)],
  ["Failures", f => f.failures, f => String(f.failures), () => ""],
  ["Moves", f => f.switches, f => String(f.switches), () => ""],
  ["Age", ageOf, f => span(ageOf(f)), () => ""],
  ["State", stateOf, stateOf, () => "", ""],
  ["Process", processOf, processOf, () => "", "node process"],
];
const isText = column => column[4] === "" || (column[4] || "").startsWith("node");
// Which of them are measured, so that they are not known of a node that no report speaks of.
const MEASURED = ["Lost", "Frontend", "Backend", "Sent", "Received", "Errors"];
const sumWords = (flow, key) => orDash(sumOf(flow, key), bytes) + (lacksSome(flow) ? "*" : "");

// Without anything to tell these would only push the others out of sight.
const LEFT_OUT_WHERE_EMPTY = {
  Backend: flow => flow.stays.every(stay => !isKnown(stay.bd)),
  Errors: flow => !sumOf(flow, "errors"),
  Failures: flow => !flow.failures,
};
let columns = COLUMNS;
function chooseColumns(flows) {
  columns = COLUMNS.filter(([title]) => !(LEFT_OUT_WHERE_EMPTY[title] && flows.every(LEFT_OUT_WHERE_EMPTY[title])));
}

// Unknown values stand behind all others, in both directions.
function sorted(flows, sort) {
  const column = sort.column < 0 ? f => f.number : COLUMNS[sort.column][1];
  const order = (a, b) => typeof a === "number" ? a - b : String(a).localeCompare(String(b), undefined, { numeric: true });
  return flows.slice().sort((f, g) => {
    const a = column(f), b = column(g);
    if (!isKnown(a) || !isKnown(b)) return isKnown(b) - isKnown(a) || f.number - g.number;
    return (sort.down ? -1 : 1) * order(a, b) || f.number - g.number;
  });
}

function showHead(table, sort, sortBy) {
  const head = make("tr", null, make("thead", null, table));
  [["Flow"], ...columns].forEach((column, i) => {
    const title = column[0], cell = make("th", null, head, i > 0 && !isText(column) ? "number" : "");
    cell.scope = "col";
    const isSorted = sort.column === COLUMNS.indexOf(column);
    if (isSorted) cell.setAttribute("aria-sort", sort.down ? "descending" : "ascending");
    const button = make("button", title + (isSorted ? sort.down ? " ↓" : " ↑" : ""), cell);
    button.type = "button";
    button.id = "sort-" + title.toLowerCase().replace(" ", "-");
    button.addEventListener("click", () => sortBy(COLUMNS.indexOf(column)));
  });
}

// A flow of which no traffic was reported shows its outcome in place of its figures.
function outcomeOf(flow) {
  if (flow.node) return `${flow.node}, nothing reported yet`;
  if (flow.failures) return `direct, after ${counted(flow.failures, "failed negotiation", "failed negotiations")}`;
  return (last(flow.marks) || { text: "direct" }).text;
}

function addCell(row, column, text, worth) {
  const cell = make("td", text, row, column[4] ?? "number");
  if (column[0] === "Saves" && savesClass(worth)) cell.classList.add(savesClass(worth));
}

function addPart(body, name) {
  const row = make("tr", null, body, "part");
  make("th", name, row).scope = "row";
  return row;
}

function showStay(flow, stay, body) {
  const row = addPart(body, periodOf(stay, flow.ended)), measured = columns.filter(column => MEASURED.includes(column[0]));
  let told = false;
  for (const column of columns) {
    if (!isUnreported(flow, stay) || !MEASURED.includes(column[0])) {
      addCell(row, column, column[3](stay), stay.worth);
    } else if (!told) {
      make("td", NOT_REPORTED, row).colSpan = measured.length;
      told = true;
    }
  }
}

function showTrial(flow, trial, body) {
  const row = addPart(body, periodOf(trial, flow.ended));
  make("td", null, row);
  make("td", "on trial: " + trial.node, row, "node");
  make("td", trial.outcome, row).colSpan = columns.length - 2;
}

function showRow(flow, table, isOpen, toggle) {
  const body = make("tbody", null, table), row = make("tr", null, body), name = make("th", null, row);
  name.scope = "row";
  const button = make("button", nameOf(flow), name, "open");
  button.type = "button";
  button.id = "open-" + flow.number;
  button.setAttribute("aria-expanded", String(isOpen));
  if (isOpen) button.setAttribute("aria-controls", "flow-" + flow.number);
  button.addEventListener("click", toggle);
  if (!flow.points.t.length) {
    make("td", outcomeOf(flow), row).colSpan = columns.length - 1;
    addCell(row, last(COLUMNS), processOf(flow));
  } else {
    for (const column of columns) addCell(row, column, column[2](flow), flow.worth);
  }
  if (!hasParts(flow)) return;
  const parts = [...flow.stays.map(stay => [stay.from, () => showStay(flow, stay, body)]),
                 ...flow.trials.map(trial => [trial.from, () => showTrial(flow, trial, body)])];
  parts.sort((a, b) => a[0] - b[0]).forEach(([, show]) => show());
}

const libraryOf = process => [orDash(process.bits, n => n + " bits"), process.libraryFile && process.libraryFile + "†"].filter(Boolean).join(", ");

function showProcesses(data) {
  const table = document.getElementById("process-table");
  document.getElementById("processes").hidden = !data.processes.length;
  table.replaceChildren();
  const parts = [["Began", p => date(p.t)], ["Process", p => p.name || "not reported"], ["Game", p => String(p.gameId)],
                   ["Library", libraryOf], ["Mended", p => p.mended ?? "unknown"], ["Log", p => p.log || "not reported"]];
  const head = make("tr", null, make("thead", null, table)), body = make("tbody", null, table);
  for (const [title] of parts) make("th", title, head).scope = "col";
  for (const process of data.processes) {
    const row = make("tr", null, body);
    parts.forEach(([, text], i) => { const cell = make(i === 1 ? "th" : "td", text(process), row); if (i === 1) cell.scope = "row"; });
  }
}
