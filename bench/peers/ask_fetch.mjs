// Asks about a screenshot with the built-in fetch.
//   ask_fetch.mjs URL IMAGE REQUEST CALLS IN_FLIGHT
import { readFile, writeFile } from "node:fs/promises";

async function memoryKb(name) {
  const status = await readFile("/proc/self/status", "utf8");
  return Number(status.match(new RegExp(`^${name}:\\s+(\\d+)`, "m"))[1]);
}

function cpuSeconds() {
  const { userCPUTime, systemCPUTime } = process.resourceUsage();
  return (userCPUTime + systemCPUTime) / 1e6;
}

function requestBody(template, image) {
  const source = { type: "base64", media_type: "image/png", data: image.toString("base64") };
  const text = template.messages[0].content[1];
  return JSON.stringify({ ...template, messages: [{ role: "user", content: [{ type: "image", source }, text] }] });
}

async function ask(url, template, image) {
  const response = await fetch(url, {
    method: "POST",
    headers: {
      "content-type": "application/json",
      "x-api-key": "bench-key-0123456789",
      "anthropic-version": "2023-06-01",
    },
    body: requestBody(template, image),
  });
  if (!response.ok) throw new Error(`HTTP ${response.status}`);
  const { content } = await response.json();
  const call = content.find((block) => block.type === "tool_use" && block.name === "propose_action");
  if (!call) throw new Error("no tool call");
  return call.input;
}

async function askAll(url, template, image, calls, inFlight) {
  let left = calls;
  async function work() {
    while (left-- > 0) {
      const { action } = await ask(url, template, image);
      if (action !== "click") throw new Error(`unexpected action ${action}`);
    }
  }
  await Promise.all(Array.from({ length: inFlight }, work));
}

const [base, imagePath, templatePath, calls, inFlight] = process.argv.slice(2);
const url = `${base}/v1/messages`;
const template = JSON.parse(await readFile(templatePath, "utf8"));
await askAll(url, template, Buffer.from("tiny"), 1, 1); // loads what is loaded on first use
const idleKb = await memoryKb("VmRSS");
const image = await readFile(imagePath);
await writeFile("/proc/self/clear_refs", "5");
await askAll(url, template, image, Number(inFlight), Number(inFlight));
const cpu = cpuSeconds();
const wall = performance.now();
await askAll(url, template, image, Number(calls), Number(inFlight));
console.log(
  JSON.stringify({
    cpu_s: (cpuSeconds() - cpu) / calls,
    wall_s: (performance.now() - wall) / 1000 / calls,
    memory_kb: (await memoryKb("VmHWM")) - idleKb,
  }),
);
