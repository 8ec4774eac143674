"""The demo's mission in its web application: invite a person to a board, read the link.

    python3 examples/playwright/mission.py
"""

import http.server
import json
import pathlib
import secrets
import threading
import time

import stage
import velmora_vision as vision

DEMO = pathlib.Path(__file__).resolve().parent.parent / "demo"


class Pinwall(http.server.SimpleHTTPRequestHandler):
    link = "none"

    def __init__(self, *arguments):
        super().__init__(*arguments, directory=str(DEMO / "app"))

    def do_POST(self):
        body = json.loads(self.rfile.read(int(self.headers["content-length"])))
        answer = {}
        if self.path.endswith("/invitations"):
            time.sleep(2.5)  # the invited person takes a while to turn up
            answer = body
        elif self.path.endswith("/links"):
            Pinwall.link = answer["link"] = "pin-" + "".join(secrets.choice("34679") for _ in range(4))
        text = json.dumps(answer).encode()
        self.send_response(200)
        self.send_header("content-type", "application/json")
        self.send_header("content-length", str(len(text)))
        self.end_headers()
        self.wfile.write(text)

    def log_message(self, *_arguments):
        pass


async def print_step(proposal, _flow_context):
    print(f"{proposal.action}: {proposal.reason}")


async def share_the_board(page):
    client = vision.VisionClient(on_action=print_step)
    verdict = await vision.act_loop(
        page,
        flow_context={"workflow_name": "demo_share_board", "phase": 4, "platform": "pinwall"},
        hotspot_id="share-board",
        mission_prompt=(DEMO / "mission.txt").read_text(),
        run_id="run-1",
        max_steps=20,
        vision=client,
    )
    print(f"verdict: {verdict.action}, {'the right link' if verdict.reason == Pinwall.link else verdict.reason}")
    metrics = client.metrics
    print(f"calls {metrics.call_count}, p95 {metrics.p95():.0f} ms, about ${metrics.estimated_cost_usd():.2f}")


if __name__ == "__main__":
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Pinwall)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    stage.run(share_the_board, f"http://127.0.0.1:{server.server_port}/")
