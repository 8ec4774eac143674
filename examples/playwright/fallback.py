"""A scripted step whose selector has gone stale. vision looks at the page, does the one thing
that is missing, and the step runs once more."""

import asyncio

import velmora_vision as vision
from playwright.async_api import async_playwright

# Its button has been renamed since the step was written.
BOARD = """<title>Board</title><body style="font: 32px sans-serif; margin: 80px">
  <h1>Harvest festival</h1>
  <button id="new-share" style="font: inherit; padding: 20px 60px"
    onclick="document.querySelector('#state').textContent = 'Shared'">Share</button>
  <p id="state"></p>"""


async def share(page):  # runs a second time after vision has acted, so it looks first what is left to do
    if await page.text_content("#state") != "Shared":
        await page.click("#old-share", timeout=2000)
    return await page.text_content("#state")


async def agent(page, context, reason):
    return f"by the agent, because {reason}"


async def main():
    vision.set_model_registry("claude-haiku-5-5", "claude-opus-5")  # the key: ANTHROPIC_API_KEY
    async with async_playwright() as playwright:
        browser = await playwright.chromium.launch(executable_path="/usr/bin/chromium")
        page = await browser.new_page(viewport={"width": 1280, "height": 800})
        await page.set_content(BOARD)
        context = {"workflow_name": "share", "current_step": 'Click "Share".', "phase": 2, "platform": "pinwall"}
        outcome = await vision.with_vision_fallback(
            page, lambda: share(page), flow_context=context, cua_fallback=agent
        )
        print(outcome.reason if isinstance(outcome, vision.ActionResult) else outcome)
        await browser.close()


asyncio.run(main())
