// Parses PowerShell scripts and workflows.
//   node parse.js FOLDER < REQUESTS
// FOLDER holds the parsers. REQUESTS is JSON: a list of {kind, text}, where the kind is "powershell" or "workflow".
// Prints a list with what is wrong in each: a list of lines of text, empty if nothing is.
"use strict";
const fs = require("fs");
const path = require("path");

const folder = path.resolve(process.argv[2]);
const { Parser, Language } = require(path.join(folder, "tree-sitter.js"));
const validator = require(path.join(folder, "action_validator.js"));

function wrongNodes(node, found) {
  if (node.isError || node.isMissing) {
    const what = node.isMissing ? `${node.type} is missing` : `not understood: ${node.text.split("\n")[0]}`;
    found.push(`line ${node.startPosition.row + 1}: ${what}`);
  } else if (node.hasError) {
    node.children.forEach(child => wrongNodes(child, found));
  }
  return found;
}

async function main() {
  await Parser.init();
  const parser = new Parser();
  parser.setLanguage(await Language.load(path.join(folder, "tree-sitter-powershell.wasm")));
  const check = {
    powershell: text => wrongNodes(parser.parse(text).rootNode, []),
    workflow: text => validator.validateWorkflow(text).errors.map(
      error => [error.path, error.title, error.detail].filter(Boolean).join(": ")),
  };
  const requests = JSON.parse(fs.readFileSync(0, "utf8"));
  console.log(JSON.stringify(requests.map(({ kind, text }) => check[kind](text))));
}

main().catch(error => { console.error(error); process.exit(1); });
