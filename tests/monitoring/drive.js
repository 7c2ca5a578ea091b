// Opens a page in a browser and does what it is told, a line of JSON each; answers a line of JSON each. Ends with
// its input.
//
// usage: drive.js FOLDER BROWSER
//
// FOLDER holds the driver (scripts/fetch_programs.sh --browser). Commands: {"open": URL}, {"value": EXPRESSION},
// {"asked": true}, {"complaints": true}, {"picture": FILE, "width": PIXELS, "theme": "light" or "dark"}.
"use strict";
const path = require("path");
const readline = require("readline");
const [folder, executablePath] = process.argv.slice(2);
const { chromium } = require(path.join(folder, "playwright-core"));
const HEIGHT = 900;

const asked = [], complaints = [];

async function answer(page, command) {
  if (command.open) await page.goto(command.open);
  // The text of an expression, as if it were typed into the console.
  if (command.value) return await page.evaluate(command.value);
  if (command.asked) return asked;
  if (command.complaints) return complaints;
  if (command.picture) {
    await page.setViewportSize({ width: command.width, height: HEIGHT });
    await page.emulateMedia({ colorScheme: command.theme });
    await page.evaluate(() => new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done))));
    await page.screenshot({ path: command.picture, fullPage: true });
  }
  return null;
}

async function main() {
  const browser = await chromium.launch({ executablePath, args: ["--no-sandbox", "--disable-gpu"] });
  try {
    const page = await browser.newPage({ viewport: { width: 1400, height: HEIGHT } });
    page.on("request", request => asked.push(request.url()));
    page.on("pageerror", error => complaints.push(String(error.stack)));
    page.on("console", message => complaints.push(message.text()));
    for await (const line of readline.createInterface({ input: process.stdin })) {
      let said;
      try {
        said = { value: await answer(page, JSON.parse(line)) };
      } catch (error) {
        said = { error: String(error) };
      }
      process.stdout.write(JSON.stringify(said) + "\n");
    }
  } finally {
    await browser.close();
  }
}
main().catch(error => { console.error(error); process.exitCode = 1; });
