// A JavaScript runtime's connected datagram socket: asks an echo server question by question, each
// after the last answer, and writes a file about what came back and its peer's name. Writes how
// long the first answer and all others took to steps.txt.
//   connected.js OUT_FILE ADDRESS PORT COUNT
"use strict";
const dgram = require("dgram");
const fs = require("fs");

const [outFile, address, port, count] = process.argv.slice(2);
const kPatienceMs = 15000; // nothing is sent again: what is lost stays lost
const socket = dgram.createSocket("udp4");
const seen = [];
const sources = new Set();
let begin = Date.now();

function finish(end) {
  const peer = socket.remoteAddress();
  const name = `${peer.address}:${peer.port}`;
  fs.writeFileSync(outFile, JSON.stringify({ seen, sources: [...sources], peer: name, end }));
  fs.appendFileSync("steps.txt", `all-answers ${Date.now() - begin}\n`);
  process.exit(end === "whole" ? 0 : 3);
}
const ask = (number) => socket.send(`question ${number} ` + "x".repeat(number * 10));

socket.on("message", (data, from) => {
  if (seen.length === 0) {
    fs.appendFileSync("steps.txt", `first-answer ${Date.now() - begin}\n`);
    begin = Date.now();
  }
  seen.push(data.toString());
  sources.add(`${from.address}:${from.port}`);
  if (seen.length === Number(count)) return finish("whole");
  ask(seen.length);
});
socket.on("error", (error) => finish(error.code));
socket.connect(Number(port), address, () => ask(0));
setTimeout(() => finish("lost"), kPatienceMs).unref();
