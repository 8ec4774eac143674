"""All modes on real pages with the local model: of Selenium, through velmora_vision.sync, and of
a Chromium of the library's own."""

import asyncio

import stage
import velmora_vision as vision
from selenium_page import SeleniumPage
from velmora_vision import chromium, sync

CONTEXT = {"workflow_name": "share", "current_step": 'Click "Share".', "phase": 2}
SITE = {"flow_context": CONTEXT, "hotspot_id": "share-board", "run_id": "run-2"}
BRIEF = '1. Click "Share".\n2. Report the text after "Link:".'


def on_selenium():
    page = SeleniumPage()
    page.goto(stage.BOARD)
    verdict = sync.act_loop(page, mission_prompt=BRIEF, **SITE)
    print(f"sync: {verdict.action}, {verdict.reason}")

    page.goto(stage.BOARD)
    clicked = lambda: page.evaluate("{ if (document.title != 'Shared') throw Error('no'); document.title }")
    assert sync.with_vision_fallback(page, clicked, flow_context=CONTEXT) == "Shared"
    page.goto(stage.BOARD)
    assert sync.shadow_observe_then_cua(page, lambda: {"text": "waited"}, **SITE) == {"text": "waited"}
    record = sync.observe_only(page, **SITE)
    assert record["vision"]["action"] == "click", record
    page.close()
    verdict = sync.act_loop(page, **SITE)
    print(f"closed: {verdict.action}, {verdict.reason}")


async def on_chromium():
    async with await chromium.launch() as browser:
        page = await browser.new_page(width=1000, height=700)
        await page.navigate(stage.BOARD)
        verdict = await vision.act_loop(page, mission_prompt=BRIEF, **SITE)
        print(f"chromium: {verdict.action}, {verdict.reason}")

        await page.navigate(stage.BOARD)
        script = "(() => { if (document.title != 'Shared') throw Error('no'); return document.title; })()"
        step = lambda: page.evaluate(script)
        assert await vision.with_vision_fallback(page, step, flow_context=CONTEXT) == "Shared"
        await page.navigate(stage.BOARD)
        agent = lambda: page.mouse.click(100, 122)
        assert await vision.shadow_observe_then_cua(page, agent, **SITE) is None
        assert await page.evaluate("document.title") == "Shared"
        await page.evaluate("document.body.innerHTML = '<input autofocus id=q>', q.focus()")
        await page.keyboard.type("héllo 🙂")
        await page.keyboard.press("Home")
        await page.mouse.wheel(0, 10)
        assert await page.evaluate("q.value + q.selectionStart") == "héllo 🙂0"
        assert page.target_id in [there["target_id"] for there in await browser.pages()]
        other = await browser.attach(page.target_id)
        await page.close()
        try:
            await other.evaluate("1")
        except vision.VisionError as error:
            assert error.kind == "PageClosedError", error.kind
        else:
            raise AssertionError("the page is not closed")


with stage.model():
    on_selenium()
    asyncio.run(on_chromium())
