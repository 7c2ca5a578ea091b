"use strict";
// One flow with its charts.

const faint = name => colour(name) + "33";
const edge = name => ({ class: "edge", stroke: faint(name), width: 1, points: { show: false }, spanGaps: true });

// A curve with a band on both sides of it.
function addBanded(what, series, values, widths, name) {
  const at = what.columns.length;
  what.series.push(series, edge(name), edge(name));
  what.columns.push(values, values.map((v, i) => v === null ? null : v + widths[i]),
                    values.map((v, i) => v === null ? null : Math.max(0, v - widths[i])));
  what.bands.push({ series: [at + 1, at + 2], fill: faint(name) });
}
const isEmpty = values => values.every(value => value === null);

function wayChart(flow, parent, view) {
  const p = flow.points, lowest = values => Math.min(...values.filter(v => v !== null));
  if (isEmpty(p.way)) return;
  const what = { title: "Delay of the way taken and of the direct way", unit: ms, columns: [p.t, p.way],
                 series: [curve("taken, between reports", "way", ms, { spanGaps: true })] };
  if (!isEmpty(p.direct)) {
    what.series.push(curve("direct, by the tables", "straight", ms, fixed),
                     { label: "difference", stroke: "transparent", points: { show: false }, scale: "none",
                       value: (plot, value) => orDash(value, v => v < 0 ? "costs " + ms(-v) : "saves " + ms(v)) });
    what.columns.push(p.direct, p.way.map((v, i) => v === null || p.direct[i] === null ? null : p.direct[i] - v));
    what.says = `direct ${ms(lowest(p.direct))}, taken ${ms(lowest(p.way))} at best`;
  }
  const scales = { x: { time: false, range: () => view.range }, y: { range: extent([]) }, none: { range: () => [0, 1] } };
  chart(parent, view, what, { scales });
}
function delayChart(flow, parent, view) {
  const p = flow.points, what = { title: "Delay of the probes", unit: ms, columns: [p.t], series: [], bands: [],
                                  limits: flow.limits ? [flow.limits.delay] : [] };
  for (const [label, name, average, amplitude, now, error] of [
    ["frontend", "front", p.fd, p.fa, p.ifd, p.ife], ["backend", "back", p.bd, p.ba, p.ibd, p.ibe]]) {
    if (isEmpty(average)) continue;
    addBanded(what, curve(label + " since the start", name, ms), average, amplitude, name);
    addBanded(what, curve(label + " between reports", name, ms, between), now, error, name);
  }
  if (what.series.length) chart(parent, view, what);
}
function lossChart(flow, parent, view) {
  const p = flow.points, what = { title: "Probes lost", unit: percent, columns: [p.t], series: [],
                                  limits: flow.limits ? [flow.limits.lost] : [] };
  for (const [label, name, lost, now] of [["frontend", "front", p.fl, p.ifl], ["backend", "back", p.bl, p.ibl]]) {
    if (isEmpty(lost)) continue;
    what.series.push(curve(label + " since the start", name, percent), curve(label + " between reports", name, percent, between));
    what.columns.push(lost, now);
  }
  if (!what.series.length) return;
  const direct = flow.stays.map(stay => stay.worth.directLost);
  if (direct.some(isKnown)) {
    what.series.push(curve("direct, by the tables", "straight", percent, fixed));
    what.columns.push(p.stay.map(i => direct[i]));
  }
  chart(parent, view, what);
}

// The times of trials and of bursts of probes, for all charts of a flow.
function bandsOf(flow) {
  const bands = flow.trials.map(trial => ({ kind: "trial", from: trial.from, until: trial.until ?? flow.last }));
  flow.points.burst.forEach((is, i) => { if (is) bands.push({ kind: "burst", from: flow.points.t[i - 1], until: flow.points.t[i] }); });
  return bands;
}

// Says what the bands and lines are that this flow has.
function showSigns(flow, view, parent) {
  const signs = [["trial", "a node on trial"], ["burst", "a burst: far more probes than usual"]]
    .filter(([kind]) => view.bands.some(band => band.kind === kind));
  if (flow.limits) signs.push(["limit", `trouble from ${ms(flow.limits.delay)} (± ${ms(flow.limits.amplitude)}) or ${percent(flow.limits.lost)} lost`]);
  if (!signs.length) return;
  const list = make("ul", null, parent, "legend");
  for (const [kind, words] of signs) {
    const entry = make("li", null, list);
    make("span", null, entry, "swatch").style.background = `var(--${kind})`;
    entry.append(words);
  }
}

function showMarks(flow, parent) {
  if (!flow.marks.length) return;
  make("h3", "What happened", parent);
  const list = make("ol", null, parent, "marks");
  list.tabIndex = 0;
  list.setAttribute("aria-label", "What happened");
  for (const mark of flow.marks) {
    const item = make("li", null, list);
    make("time", tick(+mark.t.toFixed(1)), item);
    addShape(mark.kind, item);
    item.append(mark.kind === "end" ? mark.text : `${mark.kind}: ${mark.text}`);
  }
}

// The charts' figures for those who do not see them.
const MOST_LINES = 200;
function showPoints(flow, parent) {
  const p = flow.points, columns = [
    ["After", i => tick(+p.t[i].toFixed(1))], ["Node", i => flow.stays[p.stay[i]].node],
    ["Way taken", i => orDash(p.way[i], ms)], ["Direct", i => orDash(p.direct[i], ms)],
    ["Saves", i => isKnown(p.way[i]) && isKnown(p.direct[i]) ? ms(p.direct[i] - p.way[i]) : "–"],
    ["Frontend", i => orDash(p.ifd[i], ms)], ["Backend", i => orDash(p.ibd[i], ms)],
    ["Lost", i => orDash(p.ibl[i] ?? p.ifl[i], percent)], ["Sent", i => rate(p.sent[i])], ["Received", i => rate(p.recv[i])]];
  const box = make("details", null, parent), every = Math.ceil(p.t.length / MOST_LINES);
  make("summary", "Between two reports, as a table" + (every > 1 ? ` of every ${every}th` : ""), box);
  const scroll = make("div", null, box, "scroll");
  scroll.tabIndex = 0;
  scroll.setAttribute("role", "region");
  scroll.setAttribute("aria-label", "Figures of flow " + flow.number);
  const table = make("table", null, scroll), head = make("tr", null, make("thead", null, table)), body = make("tbody", null, table);
  for (const [title] of columns) make("th", title, head, title === "Node" ? "" : "number").scope = "col";
  for (let i = 0; i < p.t.length; i += every) {
    const row = make("tr", null, body);
    columns.forEach(([title, text], at) => {
      const cell = make(at === 0 ? "th" : "td", text(i), row, title === "Node" ? "" : "number");
      if (at === 0) cell.scope = "row";
    });
  }
}

// What each of its latest nodes was worth to a flow.
const MOST_SENTENCES = 5;
function worthSentence(flow, stay) {
  const w = stay.worth, when = stay === stayOf(flow) ? "Through" : `${periodOf(stay, flow.ended)}: through`, direct = orDash(w.direct, ms), taken = orDash(w.taken, ms);
  const lost = isKnown(w.takenLost) && isKnown(w.directLost)
    ? ` Lost: ${percent(w.takenLost)} on the way taken, ${percent(w.directLost)} on the direct one, ${directBy(w)}.` : "";
  if (!isKnown(w.saves)) return `${when} ${stay.node}: what it is worth is unknown: ${w.why}.${lost}`;
  return `${when} ${stay.node} the game ${w.words.replace(/[()]/g, "")}: ${taken} (${w.why}), against ${direct} on the direct way, ${directBy(w)}.${lost}`;
}

function showFlow(flow, parent, close) {
  const section = make("section", null, parent);
  section.id = "flow-" + flow.number;
  const title = make("h2", nameOf(flow), section);
  title.id = section.id + "-title";
  section.setAttribute("aria-labelledby", title.id);
  const button = make("button", "close", section, "close");
  button.type = "button";
  button.id = "close-" + flow.number;
  button.setAttribute("aria-label", "Close " + nameOf(flow));
  button.addEventListener("click", close);
  title.after(make("p", [wayOf(flow), processOf(flow), flow.guid].filter(Boolean).join(", "), null, "under"));
  for (const stay of flow.stays.slice(-MOST_SENTENCES)) make("p", worthSentence(flow, stay), section);
  if (flow.stays.some(stay => isUnreported(flow, stay))) {
    make("p", "This flow has moved to another node. What it carried and how its link did is reported of the first " +
         "node only, so the curves end with the move.", section, "note");
  }
  const p = flow.points;
  if (hasCharts && p.t.length) {
    const range = around(Math.min(flow.first, p.t[0]), Math.max(flow.last, last(p.t)));
    const view = { range, marks: flow.marks, bands: bandsOf(flow) };
    showSigns(flow, view, section);
    const charts = make("div", null, section, "charts");
    wayChart(flow, charts, view);
    delayChart(flow, charts, view);
    lossChart(flow, charts, view);
    chart(charts, view, { title: "Rate of the game's data", unit: rate, columns: [p.t, p.sent, p.recv],
                          series: [curve("sent", "sent", rate), curve("received", "recv", rate)] });
  }
  if (p.t.length) showPoints(flow, section);
  showMarks(flow, section);
}

// Every flow as a line from its beginning to its end, with its name before it and its marks on it.
function showOverview(shown, parent) {
  if (!hasCharts || !shown.length) return;
  const first = Math.min(...shown.map(f => f.first)), end = Math.max(...shown.map(f => f.last));
  const range = around(first, end);
  const room = Math.min(210, parent.clientWidth * 0.45);
  const lines = { hooks: { draw: c => {
    const { ctx, bbox } = c, x = t => c.valToPos(t, "x", true), y = i => c.valToPos(shown.length - i - 0.5, "y", true);
    ctx.save();
    ctx.font = `${12 * devicePixelRatio}px system-ui, "Segoe UI", sans-serif`;
    ctx.textAlign = "right";
    ctx.textBaseline = "middle";
    shown.forEach((flow, i) => {
      ctx.fillStyle = colour("text");
      ctx.fillText(nameOf(flow), bbox.left - 8 * devicePixelRatio, y(i), bbox.left - 8 * devicePixelRatio);
      ctx.strokeStyle = colour("line");
      ctx.lineWidth = 3 * devicePixelRatio;
      ctx.beginPath(); ctx.moveTo(x(flow.first), y(i)); ctx.lineTo(x(flow.last), y(i)); ctx.stroke();
      let from = -Infinity;
      for (const mark of flow.marks) {
        from = Math.max(x(mark.t), from + 11 * devicePixelRatio);
        drawShape(ctx, mark.kind, from, y(i), 5 * devicePixelRatio);
      }
    });
    ctx.restore();
  } } };
  const look = axes(v => v);
  const what = { title: "From the beginning of each flow to its end", unit: v => v, columns: [[first, end], [0, shown.length]],
                 series: [{ label: "", points: { show: false } }] };
  chart(parent, { range, marks: [], bands: [] }, what, {
    height: 70 + 24 * shown.length, legend: { show: false }, plugins: [lines],
    scales: { x: { time: false, range: () => range }, y: { range: () => [0, shown.length] } },
    axes: [look[0], { ...look[1], size: room, values: () => [], grid: { show: false }, ticks: { show: false } }],
  });
}
