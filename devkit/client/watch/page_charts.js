"use strict";
// Charts with a time axis: what lies in front of, on and behind their curves.
const hasCharts = typeof uPlot === "function";
const colour = name => getComputedStyle(document.documentElement).getPropertyValue("--" + name).trim();

// Kinds of marks differ in shape as well as in colour. Each shape fits a square from -1 to 1.
const KINDS = {
  decision: ["through a node, or direct", [[-0.9, -0.35], [-0.35, -0.9], [0.35, -0.9], [0.9, -0.35], [0.9, 0.35], [0.35, 0.9], [-0.35, 0.9], [-0.9, 0.35]]],
  negotiation: ["a node agreed", [[0, -1], [1, 0.85], [-1, 0.85]]],
  failure: ["a node did not agree", [[-1, -0.5], [-0.5, -1], [0, -0.5], [0.5, -1], [1, -0.5], [0.5, 0], [1, 0.5], [0.5, 1], [0, 0.5], [-0.5, 1], [-1, 0.5], [-0.5, 0]]],
  switch: ["link in trouble: moved or not", [[0, -1], [1, 0], [0, 1], [-1, 0]]],
  end: ["the flow ended", [[-0.8, -0.8], [0.8, -0.8], [0.8, 0.8], [-0.8, 0.8]]],
};
function drawShape(ctx, kind, x, y, size) {
  ctx.fillStyle = colour(kind);
  ctx.beginPath();
  for (const [dx, dy] of KINDS[kind][1]) ctx.lineTo(x + dx * size, y + dy * size);
  ctx.closePath();
  ctx.fill();
}
function addShape(kind, parent) {
  const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
  const shape = document.createElementNS("http://www.w3.org/2000/svg", "polygon");
  svg.setAttribute("viewBox", "-1.1 -1.1 2.2 2.2");
  svg.setAttribute("class", "shape");
  svg.setAttribute("aria-hidden", "true");
  shape.setAttribute("points", KINDS[kind][1].map(at => at.join(",")).join(" "));
  shape.style.fill = `var(--${kind})`;
  svg.append(shape);
  parent.append(svg);
}

// Behind the curves: the times of bursts and trials, limits as lines from side to side, and the marks,
// each an upright line with the shape of its kind on top.
function drawBands(plot, bands) {
  const { ctx, bbox } = plot;
  for (const band of bands) {
    const at = t => Math.min(bbox.left + bbox.width, Math.max(bbox.left, plot.valToPos(t, "x", true)));
    const from = at(band.from), width = Math.max(2 * devicePixelRatio, at(band.until) - from);
    ctx.fillStyle = colour(band.kind) + "26";
    ctx.fillRect(from, bbox.top, width, bbox.height);
    ctx.fillStyle = colour(band.kind);
    ctx.fillRect(from, bbox.top + bbox.height - 3 * devicePixelRatio, width, 3 * devicePixelRatio);
  }
}
function drawLimits(plot, limits) {
  const { ctx, bbox } = plot;
  ctx.strokeStyle = colour("limit");
  ctx.setLineDash([8 * devicePixelRatio, 4 * devicePixelRatio]);
  for (const limit of limits) {
    const y = Math.round(plot.valToPos(limit, "y", true)) + devicePixelRatio / 2;
    if (y < bbox.top || y > bbox.top + bbox.height) continue;
    ctx.beginPath();
    ctx.moveTo(bbox.left, y);
    ctx.lineTo(bbox.left + bbox.width, y);
    ctx.stroke();
  }
}
function drawMarks(plot, marks) {
  const { ctx, bbox } = plot, size = 4.5 * devicePixelRatio;
  let from = -Infinity;  // marks of one moment stand side by side
  for (const mark of marks) {
    const x = Math.round(plot.valToPos(mark.t, "x", true));
    if (x < bbox.left || x > bbox.left + bbox.width) continue;
    ctx.setLineDash([4 * devicePixelRatio, 3 * devicePixelRatio]);
    ctx.strokeStyle = colour(mark.kind);
    ctx.beginPath();
    ctx.moveTo(x, bbox.top);
    ctx.lineTo(x, bbox.top + bbox.height);
    ctx.stroke();
    from = Math.max(x, from + 2.2 * size);
    drawShape(ctx, mark.kind, from, bbox.top - 1.2 * size, size);
  }
}
// The grid is drawn after what is cleared, and would cover a limit on one of its lines.
function behind(bands, limits, marks) {
  const drawing = parts => plot => {
    plot.ctx.save();
    plot.ctx.lineWidth = devicePixelRatio;
    parts.forEach(([drawPart, list]) => drawPart(plot, list));
    plot.ctx.restore();
  };
  return { hooks: { drawClear: drawing([[drawBands, bands], [drawMarks, marks]]), drawAxes: drawing([[drawLimits, limits]]) } };
}

function axes(unit) {
  const look = { stroke: colour("faint"), grid: { stroke: colour("grid"), width: 1 }, ticks: { stroke: colour("line"), width: 1 } };
  return [{ ...look, values: (plot, ticks) => ticks.map(tick), incrs: STEPS, space: 90 },
          { ...look, size: 78, space: 20, values: (plot, ticks) => ticks.map(unit) }];
}

// `more`: a curve through values that are not there at each moment is drawn from one to the next.
const curve = (label, name, unit, more) => ({ label, stroke: colour(name), width: 1.75, points: { size: 5 },
                                              value: (plot, value) => orDash(value, unit), ...more });
const between = { spanGaps: true, dash: [2, 3], width: 2.25 };
const fixed = { width: 2.25, dash: [14, 3], points: { show: false } };

// All that is drawn now, to be drawn anew in another width, and put away.
const drawn = new Set();
addEventListener("resize", () => drawn.forEach(entry => entry.fit()));
function clearCharts(parent) {
  for (const entry of drawn) {
    if (!parent.contains(entry.plot.root)) continue;
    entry.plot.destroy();
    drawn.delete(entry);
  }
}

// The extent of an axis of values: all of them, and the limits unless they are far above.
function extent(limits) {
  return (plot, low, high) => {
    const nearby = limits.filter(limit => limit < 3 * Math.max(high, 1));
    return [0, Math.max(high, ...nearby, 1 / 1.08) * 1.08];
  };
}

// `view`: range, bands and marks of the flow. `what`: title, unit, series, columns, limits, bands.
function chart(parent, view, what, more) {
  const box = make("div", null, parent);
  make("h3", what.title, box);
  const place = make("div", null, box, "chart"), limits = what.limits || [];
  const width = () => Math.max(240, box.clientWidth);
  const options = {
    width: width(), height: 210, padding: [14, null, null, null], bands: what.bands || [],
    cursor: { sync: { key: view.range.join("-") } },
    scales: { x: { time: false, range: () => view.range }, y: { range: extent(limits) } },
    axes: axes(what.unit), plugins: [behind(view.bands, limits, view.marks)],
    series: [{ label: "after", value: (plot, t) => orDash(t, tick) }, ...what.series], ...more,
  };
  const plot = new uPlot(options, what.columns, place), canvas = place.querySelector("canvas");
  canvas.setAttribute("role", "img");
  canvas.setAttribute("aria-label", what.title + (what.says ? ": " + what.says : ""));
  drawn.add({ plot, fit: () => plot.setSize({ width: width(), height: options.height }) });
}

// What a time axis shows: all of that time, a second at least, and a little on both sides.
function around(first, end) {
  const margin = Math.max(1, end - first) * 0.03;
  return [first - margin, Math.max(first + 1, end) + margin];
}
