"""A pipeline with a scripted step whose selector has gone stale. Vision looks at the page, does
the one thing that is missing, and the step runs once more.

    python3 examples/playwright/fallback.py
"""

import stage
import velmora_vision as vision


async def share(page):
    """Written for last month's page; clicks only while the board is not shared yet."""
    if await page.evaluate("document.title") != "Shared":
        print("the step looks for #old-share")
        await page.evaluate("document.querySelector('#old-share').click()")
    return await page.evaluate("document.querySelector('#state').textContent")


async def computer_use_agent(page, context, reason):
    print(f"the computer-use agent takes over: {reason}")
    return "shared by the agent"


async def pipeline(page):
    outcome = await vision.with_vision_fallback(
        page,
        lambda: share(page),
        flow_context={"workflow_name": "share", "current_step": 'Click "Share".', "phase": 2, "platform": "acme"},
        cua_fallback=computer_use_agent,
    )
    if isinstance(outcome, vision.ActionResult):
        outcome = outcome.reason  # vision saw that the goal was reached
    print(f"outcome: {outcome}")


if __name__ == "__main__":
    stage.run(pipeline)
