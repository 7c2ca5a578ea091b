// A JavaScript runtime's streams that end one side at a time. On the first connection the
// server ends first and still hears; on the second this ends its sending and reads the answer to its
// end. Writes what it saw as JSON, and how long each connection took to steps.txt.
//   half_close.js ADDRESS PORT SIZE
"use strict";
const crypto = require("crypto");
const fs = require("fs");
const net = require("net");

const [outFile, address, port, size] = process.argv.slice(2);
const body = Buffer.alloc(Number(size), "half a connection is open\n");

function talk(first, sendsWhen) {
  return new Promise((resolve) => {
    const hash = crypto.createHash("sha256");
    const seen = { first, got: 0, end: "none" };
    const socket = net.connect({ port: Number(port), host: address, allowHalfOpen: true });
    const send = () => socket.end(body);
    socket.on("connect", () => {
      seen.peer = `${socket.remoteAddress}:${socket.remotePort}`;
      socket.write(`${first} first\n`);
      if (sendsWhen === "connect") send();
    });
    socket.on("data", (data) => {
      hash.update(data);
      seen.got += data.length;
    });
    socket.on("end", () => {
      seen.end = "ended";
      if (sendsWhen === "end") send();
    });
    socket.on("error", (error) => (seen.end = error.code));
    socket.on("close", () => resolve({ ...seen, hash: hash.digest("hex") }));
  });
}

async function main() {
  const seen = [];
  for (const [first, sendsWhen] of [["server", "end"], ["game", "connect"]]) {
    const begin = Date.now();
    seen.push(await talk(first, sendsWhen));
    fs.appendFileSync("steps.txt", `${first}-ends-first ${Date.now() - begin}\n`);
  }
  fs.writeFileSync(outFile, JSON.stringify(seen));
}
main();
