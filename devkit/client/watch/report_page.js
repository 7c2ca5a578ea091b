"use strict";
// Draws a document (page_data.h). `draw` may be called again with a later one: what the reader has
// filtered, sorted and opened stays.
const MOST_IN_OVERVIEW = 30, MOST_OPEN_AT_FIRST = 3;
const reader = { data: null, filter: "", show: "all", sort: { column: -1, down: false }, open: null };
const byId = id => document.getElementById(id);
const keyOf = flow => flow.guid || "to " + flow.game;

const SHOWN = {
  all: () => true,
  relayed: flow => flow.accelerated,
  direct: flow => !flow.accelerated,
  moved: flow => flow.switches > 0 || flow.trials.length > 0,
  open: flow => !flow.ended,
};
function isWanted(flow) {
  const words = [nameOf(flow), wayOf(flow), processOf(flow), flow.guid, stateOf(flow),
                 ...flow.stays.map(stay => stay.node), ...flow.trials.map(trial => trial.node)].join(" ").toLowerCase();
  return SHOWN[reader.show](flow) && reader.filter.toLowerCase().split(/\s+/).every(word => words.includes(word));
}

// The document with all times counted from the first report of a flow.
function fromStart(data) {
  const start = data.flows.reduce((least, f) => Math.min(least, f.first), Infinity), since = t => isKnown(t) ? t - start : null;
  const moment = entry => ({ ...entry, from: since(entry.from), until: since(entry.until) });
  const flows = data.flows.map((flow, i) => ({
    ...flow, number: i + 1, first: since(flow.first), last: since(flow.last), stays: flow.stays.map(moment),
    trials: flow.trials.map(moment), marks: flow.marks.map(mark => ({ ...mark, t: since(mark.t) })),
    points: { ...flow.points, t: flow.points.t.map(since) } }));
  return { ...data, start, flows };
}

function summary({ flows, start }) {
  if (!flows.length) return "Nothing was reported of any flow.";
  const relayed = flows.filter(f => f.accelerated), reported = flows.filter(f => reportedStays(f).length);
  const end = Math.max(...flows.map(f => f.last)), moved = reported.filter(lacksSome).length;
  const carried = reported.length ? `; ${counted(reported.length, "flow", "flows")} sent ` +
    `${bytes(total(reported, f => sumOf(f, "sentBytes")))}, received ${bytes(total(reported, f => sumOf(f, "recvBytes")))} through nodes, ` +
    `as far as that is reported` + (moved ? ` (not what ${counted(moved, "flow", "flows")} carried after a move)` : "") : "";
  return `From ${date(start)}, for ${span(end)}: ${counted(flows.length, "flow", "flows")}, ${relayed.length} through nodes; ` +
    `${counted(total(flows, f => f.failures), "failed negotiation", "failed negotiations")}, ` +
    `${counted(total(flows, f => f.switches), "move", "moves")} to another node${carried}` +
    (hasCharts ? "." : ". Built without the chart library: the charts are left out.");
}

// The latest node of the flow whose way was measured, or null: after a move it may be an earlier one.
const measuredStay = flow => last(flow.stays.filter(stay => stay.worth.basis === "measured" && isKnown(stay.worth.saves)));
const meanOf = worths => Math.round(total(worths, w => w.saves) / worths.length);
const savesWords = n => n > 0 ? `saves ${n} ms` : n < 0 ? `costs ${-n} ms` : "saves nothing";

// Of all flows the figures that tell most: measured now, or until the flow moved, or the tables' alone.
function bestWorths(relayed, tables) {
  const now = relayed.map(stayOf).filter(stay => stay.worth.basis === "measured" && isKnown(stay.worth.saves));
  const stays = now.length ? now : relayed.map(measuredStay).filter(isKnown);
  if (!stays.length) return { counts: tables, words: null };
  const counts = stays.map(stay => stay.worth), each = counts.map(w => w.saves);
  const until = now.length ? "" : `, until ${each.length === 1 ? "it" : "they"} moved`;
  const range = each.length > 1 ? `, from ${Math.min(...each)} to ${Math.max(...each)} ms` : "";
  return { counts, words: `${each.length === 1 ? "Of" : "On average of"} the ${counted(each.length, "flow", "flows")} whose way was measured${until}${range}` };
}

// Sums what is known, and says of what.
function showWorth(flows) {
  const relayed = flows.filter(f => f.worth), unknown = relayed.filter(f => !isKnown(f.worth.saves));
  const tables = relayed.filter(f => f.worth.basis === "tables" && isKnown(f.worth.saves)).map(f => f.worth);
  const { counts, words } = bestWorths(relayed, tables), line = byId("worth"), mean = counts.length ? meanOf(counts) : 0;
  line.textContent = counts.length ? words ? savesWords(mean) : `(${savesWords(mean)})`
    : relayed.length ? "unknown" : "nothing: no flow goes through a node";
  line.className = "big " + (mean > 0 ? "better" : mean < 0 ? "worse" : "");
  const parts = words ? [words] : [];
  if (tables.length) parts.push(`${counted(tables.length, "flow", "flows")} by the tables alone, on average: ${savesWords(meanOf(tables))}`);
  if (unknown.length) parts.push(`${counted(unknown.length, "flow", "flows")} unknown: ${[...new Set(unknown.map(f => f.worth.why))].join("; ")}`);
  const direct = flows.length - relayed.length;
  if (direct) parts.push(`${counted(direct, "flow", "flows")} direct, with nothing to save`);
  byId("worth-of").textContent = parts.join(". ") + (parts.length ? "." : "");
}

function showLegend() {
  const legend = byId("legend");
  legend.replaceChildren();
  for (const [kind, [words]] of Object.entries(KINDS)) {
    const entry = make("li", null, legend);
    addShape(kind, entry);
    make("b", kind, entry);
    entry.append(": " + words);
  }
}

function showOverviewOf(flows) {
  const place = byId("overview");
  clearCharts(place);
  place.replaceChildren();
  const shown = flows.slice(0, MOST_IN_OVERVIEW);
  showOverview(shown, place);
  if (flows.length > shown.length) make("p", `Of ${flows.length} flows the first ${shown.length} in the table are drawn.`, place, "under");
}

function toggle(flow) {
  const key = keyOf(flow), opens = !reader.open.has(key);
  if (opens) reader.open.add(key); else reader.open.delete(key);
  redraw();
  if (opens) byId("flow-" + flow.number).scrollIntoView({ block: "nearest" });
  else byId("open-" + flow.number)?.focus();
}
function sortBy(column) {
  const sort = reader.sort;
  reader.sort = { column, down: sort.column === column ? !sort.down : column >= 0 && !(COLUMNS[column][4] || "").startsWith("node") };
  redraw();
}

function showTable(flows, all) {
  const table = byId("figures");
  table.replaceChildren();
  chooseColumns(all);
  showHead(table, reader.sort, sortBy);
  for (const flow of flows) showRow(flow, table, reader.open.has(keyOf(flow)), () => toggle(flow));
  byId("count").textContent = flows.length === all.length ? counted(all.length, "flow", "flows") : `${flows.length} of ${all.length} flows`;
  byId("caveat").textContent = all.some(lacksSome)
    ? "* As far as it is reported: what a flow carries after a move is not, unless after-switch is mended for its game." : "";
}

function showOpened(flows) {
  const place = byId("flows");
  clearCharts(place);
  place.replaceChildren();
  for (const flow of flows) if (reader.open.has(keyOf(flow))) showFlow(flow, place, () => toggle(flow));
}

// What has the keyboard keeps it, though it is made anew.
function redraw() {
  const active = document.activeElement && document.activeElement.id, data = reader.data;
  const flows = sorted(data.flows.filter(isWanted), reader.sort);
  showTable(flows, data.flows);
  showOpened(flows);
  showOverviewOf(flows);
  if (active && byId(active) && document.activeElement.id !== active) byId(active).focus({ preventScroll: true });
}

// Of a few flows those with most reports are opened at once.
function openedAtFirst(flows) {
  const known = flows.filter(f => f.points.t.length).sort((f, g) => g.points.t.length - f.points.t.length);
  return new Set(flows.length > 10 ? [] : known.slice(0, MOST_OPEN_AT_FIRST).map(keyOf));
}

function draw(document_) {
  reader.raw = document_;
  const data = reader.data = fromStart(document_), flows = data.flows;
  if (reader.open === null && flows.length) reader.open = openedAtFirst(flows);
  byId("summary").textContent = summary(data);
  byId("reading").hidden = !flows.length;
  byId("made").textContent = `Made by vyr_client ${data.version}.`;
  byId("library").textContent = data.processes.some(process => process.libraryFile)
    ? "† The version of the library's file beside vyr_client, which vyr_run takes. The library itself does not report its version."
    : "The library does not report its version.";
  showProcesses(data);
  if (!flows.length) return;
  showWorth(flows);
  redraw();
}

showLegend();
byId("tools").addEventListener("submit", event => event.preventDefault());
byId("filter").addEventListener("input", event => { reader.filter = event.target.value.trim(); redraw(); });
byId("show").addEventListener("change", event => { reader.show = event.target.value; redraw(); });
// What is drawn keeps the colours that it was drawn in.
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => { if (reader.data) draw(reader.raw); });

draw(JSON.parse(byId("data").textContent));
