"""Asks about a screenshot with httpx on asyncio.

    ask_httpx.py URL IMAGE REQUEST CALLS IN_FLIGHT [CA_FILE]
"""
import asyncio
import base64
import json
import resource
import sys
import time
from pathlib import Path


def memory_kb(name):
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1])


def cpu_s():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def request_body(template, image):
    data = base64.b64encode(image).decode("ascii")
    source = {"type": "base64", "media_type": "image/png", "data": data}
    text = template["messages"][0]["content"][1]
    content = [{"type": "image", "source": source}, text]
    return {**template, "messages": [{"role": "user", "content": content}]}


async def ask(client, url, template, image):
    response = await client.post(url, json=request_body(template, image))
    response.raise_for_status()
    for block in response.json()["content"]:
        if block["type"] == "tool_use" and block["name"] == "propose_action":
            return block["input"]
    raise ValueError("no tool call")


async def ask_all(client, url, template, image, calls, in_flight):
    left = calls

    async def work():
        nonlocal left
        while left > 0:
            left -= 1
            action = await ask(client, url, template, image)
            assert action["action"] == "click"

    await asyncio.gather(*(work() for _ in range(in_flight)))


async def main(url, image_path, template_path, calls, in_flight, ca_file=True):
    import httpx

    calls, in_flight = int(calls), int(in_flight)
    template = json.loads(Path(template_path).read_text())
    headers = {"x-api-key": "bench-key-0123456789", "anthropic-version": "2023-06-01"}
    limits = httpx.Limits(max_connections=in_flight, max_keepalive_connections=in_flight)
    async with httpx.AsyncClient(headers=headers, limits=limits, timeout=120, verify=ca_file) as client:
        url += "/v1/messages"
        await ask_all(client, url, template, b"tiny", 1, 1)  # loads what is loaded on first use
        idle_kb = memory_kb("VmRSS")
        image = Path(image_path).read_bytes()
        Path("/proc/self/clear_refs").write_text("5")
        await ask_all(client, url, template, image, in_flight, in_flight)
        cpu, wall = cpu_s(), time.monotonic()
        await ask_all(client, url, template, image, calls, in_flight)
        result = {
            "cpu_s": (cpu_s() - cpu) / calls,
            "wall_s": (time.monotonic() - wall) / calls,
            "memory_kb": memory_kb("VmHWM") - idle_kb,
        }
    print(json.dumps(result))


asyncio.run(main(*sys.argv[1:]))
