#!/usr/bin/env python3
"""Serves the models of cases.json, the table that every language is held to: prints its URL,
and answers POST /NAME/N/v1/messages with the next answer of case N, per NAME.

A case has
  operation, options, client   what is called, beside the flow context, the hotspot
                               "share-dialog" and the run "run-1"
  model                        the answers, in turn and over again: inputs of propose_action,
                               {"content": ...}, or {"status": ...}, an HTTP error or "never"
  page                         what calls of the page do in place of succeeding
  host                         what calls of the host's functions do, in turn
  way                          the way of the rescue, where the language tells it
  ends                         the value or the error, the calls of the page, what the functions
                               were told, and the records with "ts", "latency_ms" and
                               "elapsed_ms" as 0
where doing is {"value": ...} or {"error": {"kind": ..., "message": ...}}. The page is 1000 x 500
CSS pixels at a pixel ratio of 2."""

import collections
import http.server
import json
import pathlib

CASES = json.loads((pathlib.Path(__file__).parent / "cases.json").read_text())["cases"]


class Model(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    asked = collections.Counter()  # by run and case

    def do_POST(self):
        self.rfile.read(int(self.headers["content-length"]))
        place = self.path.split("/v1/")[0]
        answers = CASES[int(place.split("/")[-1])]["model"]
        answer = answers[Model.asked[place] % len(answers)]
        Model.asked[place] += 1
        status = answer.get("status", 200)
        if status == "never":
            self.rfile.read(1)  # until the client gives up
            return
        body = {"type": "error", "error": {"type": "api_error", "message": "as the script says"}}
        if status == 200:
            defaults = {"reason": "because", "confidence": 0.9, "next_expected_state": "next"}
            call = {"type": "tool_use", "name": "propose_action", "input": {**defaults, **answer}}
            body = {"content": answer.get("content", [call]), "usage": {"input_tokens": 1500, "output_tokens": 200}}
        text = json.dumps(body).encode()
        self.send_response(status)
        self.send_header("content-type", "application/json")
        self.send_header("content-length", str(len(text)))
        self.end_headers()
        self.wfile.write(text)

    def log_message(self, *_arguments):
        pass


if __name__ == "__main__":
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Model)
    print(f"http://127.0.0.1:{server.server_port}", flush=True)
    server.serve_forever()
