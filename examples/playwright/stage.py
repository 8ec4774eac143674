"""What the examples stand on: a page and a model.

The page is Playwright's where Playwright for Python is installed (the Chromium it drives is
Debian's), else one over Selenium with the same methods. With ANTHROPIC_API_KEY set the hosted
model answers, else the local model, the program that VISION_LOCAL_MODEL names.
"""

import asyncio
import contextlib
import os
import subprocess
from urllib.parse import quote

import velmora_vision as vision

LOCAL_MODEL = "build/release/examples/local_model/vision-local-model"

# "#old-share" is what a script written for last month's page would look for.
BOARD = "data:text/html," + quote(
    "<title>Board</title><body style='font:32px DejaVu Sans;background:white;color:black'><p>Board</p>"
    "<p><button id='share' style='font:32px DejaVu Sans;padding:12px 24px' "
    "onclick=\"state.textContent='Link: panel-42';document.title='Shared'\">Share</button></p>"
    "<p id='state'>Nobody else can see it</p>"
)


@contextlib.contextmanager
def model():
    vision.set_model_registry("claude-haiku-5-5", "claude-opus-5")
    if "ANTHROPIC_API_KEY" in os.environ:
        yield
        return
    with subprocess.Popen([os.environ.get("VISION_LOCAL_MODEL", LOCAL_MODEL)], stdout=subprocess.PIPE) as local:
        url = local.stdout.readline().decode().strip()
        os.environ.update(ANTHROPIC_API_KEY="any", ANTHROPIC_BASE_URL=url, no_proxy="127.0.0.1")
        try:
            yield
        finally:
            local.terminate()


@contextlib.asynccontextmanager
async def open_page(url):
    try:
        from playwright.async_api import async_playwright
    except ImportError:
        from selenium_page import AsyncSeleniumPage

        page = AsyncSeleniumPage()
        try:
            await page.goto(url)
            yield page
        finally:
            await page.close()
        return
    async with async_playwright() as playwright:
        browser = await playwright.chromium.launch(executable_path="/usr/bin/chromium", args=["--no-sandbox"])
        page = await browser.new_page(viewport={"width": 1280, "height": 800})
        await page.goto(url)
        yield page
        await browser.close()


def run(example, url=BOARD):
    """Runs a coroutine function with a page that shows the url."""

    async def play():
        async with open_page(url) as page:
            await example(page)

    with model():
        asyncio.run(play())
