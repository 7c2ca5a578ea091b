// Reads PromQL with Prometheus's own grammar, and tells what each query asks for.
//
// usage: NODE_PATH=FOLDER read_queries.js <QUERIES >READ
//
// FOLDER holds the parser (scripts/fetch_programs.sh --promql). QUERIES is a JSON list of texts. Of each: what is
// no PromQL in it, the metrics with the labels that select among them and the functions around them, and the
// labels that are left by each aggregation.
"use strict";
const fs = require("fs");
const { parser } = require("@prometheus-io/lezer-promql");

function read(query) {
  const found = { errors: [], metrics: [], aggregations: [] };
  const text = node => query.slice(node.from, node.to);
  const under = (node, name) => {
    const all = [];
    node.cursor().iterate(inner => { if (inner.name === name) all.push(text(inner)); });
    return all;
  };
  const around = node => {
    const functions = [];
    for (let outer = node.parent; outer; outer = outer.parent) {
      if (outer.name === "FunctionCall") functions.push(text(outer.getChild("FunctionIdentifier")));
    }
    return functions;
  };
  parser.parse(query).iterate({ enter: at => {
    const node = at.node;
    if (node.type.isError) found.errors.push(`at ${node.from}: ${text(node) || query.slice(node.from)}`);
    if (node.name === "VectorSelector") {
      found.metrics.push({ name: under(node, "Identifier")[0], labels: under(node, "LabelName"),
                           isRange: node.parent.name === "MatrixSelector", functions: around(node) });
    }
    if (node.name === "AggregateExpr") {
      const kept = node.getChild("AggregateModifier");
      found.aggregations.push(kept ? under(kept, "LabelName") : []);
    }
  } });
  return found;
}

process.stdout.write(JSON.stringify(JSON.parse(fs.readFileSync(0, "utf8")).map(read)));
