"""Two ways to stop a mission: the pipeline's own stop flag, which is asked before every step, and
cancelling the task, which ends the mission wherever it is.

    python3 examples/playwright/abort.py
"""

import asyncio

import stage
import velmora_vision as vision

MISSION = {"flow_context": {"workflow_name": "share", "phase": 2}, "hotspot_id": "share-board", "run_id": "run-1"}


async def stop(page):
    stop_flag = asyncio.Event()

    async def press_stop(proposal, _flow_context):
        print(f"the model says {proposal.action}; now the user presses stop")
        stop_flag.set()

    client = vision.VisionClient(on_action=press_stop)
    verdict = await vision.act_loop(
        page,
        mission_prompt='1. Click "Share".\n2. Report the text after "Link:".',
        should_abort=stop_flag.is_set,
        vision=client,
        **MISSION,
    )
    print(f"verdict: {verdict.action}, {verdict.reason}; by the user: {stop_flag.is_set()}")

    asked = asyncio.Event()

    async def wait_forever(proposal, _flow_context):
        asked.set()
        await asyncio.Event().wait()

    client = vision.VisionClient(on_action=wait_forever)
    mission = asyncio.create_task(vision.act_loop(page, mission_prompt='1. Click "Share".', vision=client, **MISSION))
    await asked.wait()
    mission.cancel()
    try:
        await mission
    except asyncio.CancelledError:
        print("cancelled in the middle")


if __name__ == "__main__":
    stage.run(stop)
