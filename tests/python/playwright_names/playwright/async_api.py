"""What examples/playwright/fallback.py takes of Playwright's async API, by the same names over
Selenium: Playwright itself cannot be installed where the tests run."""

import contextlib
import json

from selenium_page import AsyncSeleniumPage, SeleniumPage


class TimeoutError(Exception):
    pass


def at(selector):
    return f"document.querySelector({json.dumps(selector)})"


def set_content(page, html):
    page.evaluate(f"document.documentElement.innerHTML = {json.dumps(html)}")


def text_content(page, selector):
    return page.evaluate(f"{at(selector)}.textContent")


def click(page, selector, timeout):
    if not page.evaluate(f"{at(selector)} !== null"):
        raise TimeoutError(f"Page.click: Timeout {timeout}ms exceeded.")
    page.evaluate(f"{at(selector)}.click()")


SeleniumPage.set_content, SeleniumPage.text_content, SeleniumPage.click = set_content, text_content, click


class Browser:
    async def new_page(self, *, viewport):
        self._page = AsyncSeleniumPage(**viewport)
        return self._page

    async def close(self):
        await self._page.close()


class Chromium:
    async def launch(self, *, executable_path):
        return Browser()


@contextlib.asynccontextmanager
async def async_playwright():
    yield type("Playwright", (), {"chromium": Chromium()})
