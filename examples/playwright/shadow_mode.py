"""Shadow mode: the computer-use agent acts; vision looks at the same screen at the same time and
only says what it would have done. The shadow log pairs the two. After a scripted step that
worked, the observer records the same.

    python3 examples/playwright/shadow_mode.py
"""

import json
import os

import stage
import velmora_vision as vision

CONTEXT = {"workflow_name": "share", "current_step": 'Click "Share".', "phase": 2, "platform": "acme"}


async def share_the_board(page):
    async def computer_use_agent():
        await page.mouse.click(100, 122)
        state = await page.evaluate("document.querySelector('#state').textContent")
        return {"text": f"click 0.08,0.15: {state}"}

    result = await vision.shadow_observe_then_cua(
        page, computer_use_agent, flow_context=CONTEXT, hotspot_id="share-board", run_id="run-1"
    )
    print(f"the agent: {result['text']}")

    truth = {"action": "click", "true_x_ratio": 0.08, "true_y_ratio": 0.15, "label": "Share"}
    observation = vision.observe_in_background(
        page, flow_context=CONTEXT, hotspot_id="share-board", run_id="run-1", dom_ground_truth=truth
    )
    print("the pipeline goes on")
    await observation  # most pipelines do not; here the browser is about to close

    with open(os.environ.get("KX_VISION_SHADOW_LOG", "logs/vision_shadow.jsonl")) as log:
        for line in list(log)[-2:]:
            record = json.loads(line)
            print(f"vision: {record['vision']['action']} beside {record.get('cua') or record['dom_ground_truth']}")


if __name__ == "__main__":
    stage.run(share_the_board)
