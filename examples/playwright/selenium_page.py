"""Pages of Selenium with the methods of Playwright's that vision needs, under the same names:
SeleniumPage as its sync API has them, AsyncSeleniumPage as its async API has them."""

import asyncio
import base64
from concurrent.futures import ThreadPoolExecutor
from time import sleep

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

SPECIAL = {"Enter": Keys.ENTER, "Tab": Keys.TAB, "Escape": Keys.ESCAPE, "Backspace": Keys.BACKSPACE}
SPECIAL.update(Control=Keys.CONTROL, Shift=Keys.SHIFT, Alt=Keys.ALT, Meta=Keys.META)


class Mouse:
    def __init__(self, driver):
        self._driver = driver
        self._at = (0.0, 0.0)

    def _send(self, kind, **more):
        event = {"type": kind, "x": self._at[0], "y": self._at[1], **more}
        self._driver.execute_cdp_cmd("Input.dispatchMouseEvent", event)

    def click(self, x, y, *, delay=None, button=None, click_count=None):
        self._at = (x, y)
        self._send("mouseMoved")
        self._send("mousePressed", button="left", clickCount=1)
        self._send("mouseReleased", button="left", clickCount=1)

    def wheel(self, delta_x, delta_y):
        self._send("mouseWheel", deltaX=delta_x, deltaY=delta_y)


class Keyboard:
    def __init__(self, driver):
        self._driver = driver

    def type(self, text, *, delay=None):
        for character in text:
            self._driver.execute_cdp_cmd("Input.insertText", {"text": character})
            sleep((delay or 0) / 1000)

    def press(self, key, *, delay=None):
        keys = [SPECIAL.get(part, part) for part in key.split("+")]
        actions = ActionChains(self._driver)
        for one in keys:
            actions.key_down(one)
        for one in reversed(keys):
            actions.key_up(one)
        actions.perform()


class SeleniumPage:
    def __init__(self, width=1280, height=800):
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage"):
            options.add_argument(argument)
        self._driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
        size = {"width": width, "height": height}
        self._driver.execute_cdp_cmd(
            "Emulation.setDeviceMetricsOverride", {**size, "deviceScaleFactor": 1, "mobile": False}
        )
        self._size = size
        self.mouse, self.keyboard = Mouse(self._driver), Keyboard(self._driver)

    @property
    def viewport_size(self):
        return self._size

    def goto(self, url):
        self._driver.get(url)

    def screenshot(self, *, timeout=None, type=None, path=None, full_page=None):
        how = {"format": type or "png", "captureBeyondViewport": bool(full_page)}
        return base64.b64decode(self._driver.execute_cdp_cmd("Page.captureScreenshot", how)["data"])

    def evaluate(self, expression, arg=None):
        return self._driver.execute_script("return eval(arguments[0])", expression)

    def close(self):
        self._driver.quit()


class _Async:
    """An object of the sync kind, with each method as a coroutine on the driver's thread."""

    def __init__(self, thread, thing):
        self._thread, self._thing = thread, thing

    def __getattr__(self, name):
        method = getattr(self._thing, name)

        async def call(*arguments, **options):
            return await asyncio.get_running_loop().run_in_executor(
                self._thread, lambda: method(*arguments, **options)
            )

        return call


class AsyncSeleniumPage(_Async):
    def __init__(self, width=1280, height=800):
        thread = ThreadPoolExecutor(max_workers=1)
        super().__init__(thread, thread.submit(SeleniumPage, width, height).result())
        self.mouse, self.keyboard = _Async(thread, self._thing.mouse), _Async(thread, self._thing.keyboard)

    @property
    def viewport_size(self):
        return self._thing.viewport_size
