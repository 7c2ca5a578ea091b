// Compiles descriptions and parses bytes with them.
//   node parse.js FOLDER < REQUESTS
// FOLDER holds the compiler, its runtime and the YAML reader. REQUESTS is JSON: a list of {ksy, type, bytes},
// the path of a description, the name of one of its types and base64. Prints a list of {consumed, value} or {error}.
"use strict";
const fs = require("fs");
const path = require("path");

const folder = path.resolve(process.argv[2]);
const compiler = require(path.join(folder, "kaitai-struct-compiler.js"));
const runtime = require(path.join(folder, "KaitaiStream.js"));
const yaml = require(path.join(folder, "js-yaml.min.js"));

const camel = name => name.split("_").map(word => word[0].toUpperCase() + word.slice(1)).join("");

async function compiled(file) {
  const description = yaml.load(fs.readFileSync(file, "utf8"));
  const files = await (compiler.default || compiler).compile("javascript", description, null, false);
  const code = Object.values(files)[0], module = { exports: {} };
  new Function("module", "exports", "require", code)(module, module.exports, () => runtime);
  const root = camel(description.meta.id);
  return module.exports[root] || module.exports;
}

// Fields without what belongs to the parser itself.
function plain(value) {
  if (value instanceof Uint8Array) return Buffer.from(value).toString("hex");
  if (Array.isArray(value)) return value.map(plain);
  if (value === null || typeof value !== "object") return value;
  return Object.fromEntries(Object.entries(value).filter(([name]) => !name.startsWith("_"))
    .map(([name, field]) => [name, plain(field)]));
}

async function main() {
  const classes = {}, answers = [];
  const Stream = runtime.KaitaiStream || runtime;
  for (const { ksy, type, bytes } of JSON.parse(fs.readFileSync(0, "utf8"))) {
    classes[ksy] = classes[ksy] || await compiled(ksy);
    const data = new Uint8Array(Buffer.from(bytes, "base64"));
    const stream = new Stream(data.buffer);
    try {
      const value = new classes[ksy][camel(type)](stream);
      answers.push({ consumed: stream.pos, value: plain(value) });
    } catch (error) {
      answers.push({ error: String(error) });
    }
  }
  console.log(JSON.stringify(answers));
}

main().catch(error => { console.error(error); process.exit(1); });
