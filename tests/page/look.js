// Opens pages in a browser, tells what each shows, uses them by keyboard, and takes their pictures.
//
// usage: look.js FOLDER BROWSER <LOOKS >FOUND
//
// FOLDER holds the driver and the accessibility engine (scripts/fetch_programs.sh --browser). Each of LOOKS,
// a JSON list, has a name, a page, a width, a theme and, if wanted, a picture and `uses`: true.
"use strict";
const fs = require("fs");
const path = require("path");
const { pathToFileURL } = require("url");
const [folder, executablePath] = process.argv.slice(2);
const { chromium } = require(path.join(folder, "playwright-core"));
const engine = fs.readFileSync(path.join(folder, "axe.min.js"), "utf8");
const HEIGHT = 900;

// What the page shows. Runs in the page: counts the pixels of each colour in each chart.
function whatIsShown() {
  const kinds = ["sent", "recv", "front", "back", "way", "straight", "limit", "trial", "decision", "negotiation", "failure", "switch", "end"];
  const wanted = kinds.map(kind => [1, 3, 5].map(i => parseInt(colour(kind).slice(i, i + 2), 16)));
  const charts = [...document.querySelectorAll(".chart")].map(place => {
    const canvas = place.querySelector("canvas"), counts = Object.fromEntries(kinds.map(kind => [kind, 0]));
    const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
    Object.assign(counts, { heads: 0, band: 0, labels: 0 });  // heads: of marks, above the curves
    for (let i = 0; i < pixels.length; i += 4) {
      const x = i / 4 % canvas.width, y = Math.floor(i / 4 / canvas.width), alpha = pixels[i + 3];
      if (alpha > 200 && y < 12) ++counts.heads;
      if (alpha > 200 && x < 60) ++counts.labels;
      if (alpha > 40 && alpha < 60 && x > 90) ++counts.band;
      if (alpha > 200) wanted.forEach((rgb, k) => {
        if (rgb.every((c, j) => Math.abs(pixels[i + j] - c) < 12)) ++counts[kinds[k]];
      });
    }
    return { flow: place.closest("section").id, title: place.previousSibling.textContent, counts };
  });
  const cells = row => [...row.children].map(cell => cell.textContent).join(" | ");
  const fills = [...document.querySelectorAll("#legend polygon")].map(shape => getComputedStyle(shape).fill);
  return { charts, title: document.title, text: document.body.innerText, fills: new Set(fills).size,
           rows: [...document.querySelectorAll("#figures tbody tr")].map(cells),
           flows: document.querySelectorAll("#figures tbody").length,
           height: document.documentElement.scrollHeight,
           overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth };
}

async function violations(page) {
  await page.evaluate(engine);
  const found = await page.evaluate(() => axe.run());
  return found.violations.map(each => `${each.id}: ${each.help}: ${each.nodes[0].html.slice(0, 150)}`);
}

// Sorts, opens, closes and filters without a mouse, and draws the page's data once more.
async function use(page) {
  const names = () => page.evaluate(() => [...document.querySelectorAll("#figures button.open")].map(button => button.textContent));
  const focus = () => page.evaluate(() => document.activeElement.id);
  const isOpen = () => page.evaluate(() => [...document.querySelectorAll("#flows section")].map(section => section.id));
  const steps = {};
  await page.focus("#sort-saves");
  await page.keyboard.press("Enter");
  steps.bySavings = { names: await names(), focus: await focus(), sort: await page.locator("#figures th[aria-sort]").getAttribute("aria-sort") };
  await page.keyboard.press("Space");
  steps.turned = { names: await names(), sort: await page.locator("#figures th[aria-sort]").getAttribute("aria-sort") };
  await page.focus("#sort-flow");
  await page.keyboard.press("Enter");
  await page.keyboard.press("Tab");  // over the other headings
  while (!(await focus()).startsWith("open-")) await page.keyboard.press("Tab");
  steps.tabbed = await focus();
  await page.keyboard.press("Enter");
  steps.opened = { open: await isOpen(), focus: await focus(), expanded: await page.locator("#open-1").getAttribute("aria-expanded") };
  await page.keyboard.press("Enter");
  steps.closed = { open: await isOpen(), focus: await focus() };
  await page.focus("#filter");
  await page.keyboard.type("7001");
  steps.filtered = { names: await names(), count: await page.locator("#count").textContent(), focus: await focus() };
  await page.evaluate(() => draw(JSON.parse(document.getElementById("data").textContent)));
  steps.redrawn = { names: await names(), open: await isOpen(), focus: await focus() };
  steps.violations = await violations(page);
  return steps;
}

async function lookAt(browser, look) {
  const page = await browser.newPage({ viewport: { width: look.width, height: HEIGHT }, colorScheme: look.theme });
  const complaints = [], url = pathToFileURL(path.resolve(look.page)).href;
  page.on("console", message => complaints.push(message.text()));
  page.on("pageerror", error => complaints.push(String(error.stack)));
  page.on("request", request => { if (request.url() !== url) complaints.push("asked for " + request.url()); });
  await page.goto(url);
  const found = await page.evaluate(whatIsShown);
  if (look.picture) await page.screenshot({ path: look.picture, fullPage: true });
  Object.assign(found, { violations: await violations(page), complaints });
  if (look.uses) found.uses = await use(page);
  await page.close();
  return found;
}

async function main() {
  const looks = JSON.parse(fs.readFileSync(0, "utf8")), found = {};
  // No name resolves and no address is reached: the page has all it needs.
  const browser = await chromium.launch({ executablePath, args: ["--no-sandbox", "--disable-gpu", "--host-resolver-rules=MAP * ~NOTFOUND"] });
  try {
    for (const look of looks) found[look.name] = await lookAt(browser, look);
  } finally {
    await browser.close();
  }
  process.stdout.write(JSON.stringify(found));
}
main().catch(error => { console.error(error); process.exitCode = 1; });
