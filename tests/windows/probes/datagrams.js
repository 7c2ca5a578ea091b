// The datagram work of the JavaScript runtime as a game: sends each datagram from one socket to an
// echo server, repeatedly until its echo arrives, and writes a file about what came back.
//   datagrams.js OUT_FILE ADDRESS PORT COUNT
"use strict";
const dgram = require("dgram");
const fs = require("fs");

const [outFile, address, port, count] = process.argv.slice(2);
const kAgainMs = 1000;
const seen = new Set();
const sources = new Set();
const socket = dgram.createSocket("udp4");
const text = (number) => `datagram ${number} ` + "x".repeat(number * 10);

function sendMissing() {
  for (let i = 0; i < Number(count); i++) {
    if (!seen.has(text(i))) socket.send(text(i), Number(port), address);
  }
}

const again = setInterval(sendMissing, kAgainMs);
socket.on("message", (data, from) => {
  seen.add(data.toString());
  sources.add(`${from.address}:${from.port}`);
  if (seen.size < Number(count)) return;
  clearInterval(again);
  socket.close();
  fs.writeFileSync(outFile, JSON.stringify({ seen: [...seen].sort(), sources: [...sources] }));
});
sendMissing();
