// The HTTP work of the JavaScript runtime as a game: many fetches and one upload, all at once, over
// separate connections. Writes the results as JSON.
//   fetcher.js OUT_FILE BASE_URL COUNT UPLOAD_SIZE
"use strict";
const crypto = require("crypto");
const fs = require("fs");
const http = require("http");

const [outFile, baseUrl, count, uploadSize] = process.argv.slice(2);

function request(method, path, body) {
  return new Promise((resolve, reject) => {
    const hash = crypto.createHash("sha256");
    let size = 0;
    let peer = "";
    const sent = http.request(baseUrl + path, { method, agent: false }, (answer) => {
      peer = `${answer.socket.remoteAddress}:${answer.socket.remotePort}`;
      answer.on("data", (data) => {
        hash.update(data);
        size += data.length;
      });
      answer.on("end", () => resolve({ path, status: answer.statusCode, size, hash: hash.digest("hex"), peer }));
    });
    sent.on("error", reject);
    sent.end(body);
  });
}

const work = [];
for (let i = 0; i < Number(count); i++) work.push(request("GET", `/file${i}`));
const body = crypto.randomBytes(Number(uploadSize));
work.push(request("POST", "/upload", body));
Promise.all(work).then((seen) => {
  const uploaded = crypto.createHash("sha256").update(body).digest("hex");
  fs.writeFileSync(outFile, JSON.stringify({ uploaded, seen }));
});
