"""Which header a file may include: the rules of scripts/lint about rooms and about what
is internal. docs/design.md says what the rooms are for."""
import pathlib
import re

CMAKE = pathlib.Path(__file__).parent.parent / "vision/CMakeLists.txt"

# The rooms, the lowest first: each may include those on the lines above it, and rooms on
# one line keep apart. A file on a line counts as a room of its own.
LAYERS = """
vision/text
vision/settings vision/records
vision/runtime
vision/page vision/client/http/http_options.hpp
vision/client
vision/client/http vision/wirein vision/testing
vision/replay
vision
chromium/errors.hpp chromium/launch_options.hpp
chromium/protocol
chromium/process chromium/input chromium/events
chromium
"""
LEVEL = {room: level for level, line in enumerate(LAYERS.split("\n")) for room in line.split()}
# The one include that goes up.
UPWARD = {("vision/client/vision_client.cpp", "vision/client/http/http_messages_client.hpp"): "the default transport"}
# Who may include internal headers. All other programs show hosts how it is done.
INSIDERS = "vision chromium tests fuzz bench bindings tools examples/demo examples/local_model examples/loopback".split()
OUTSIDERS = ["tests/consumer"]
# Internal, and installed all the same: what templates in host headers need.
FORCED = {"vision/" + name for names in re.findall(r"FORCED_HEADERS((?:\s+\S+\.hpp)+)", CMAKE.read_text())
          for name in names.split()}


def below(path, places):
    return any(path == place or path.startswith(place + "/") for place in places)


def is_internal(header):
    return "/internal/" in header or bool(re.match(r"chromium/\w+/", header))


def fault(path, header):
    """Why a file must not include a header of this tree; None when it may."""
    room, its_room = (max((r for r in LEVEL if below(p, [r])), key=len, default=None) for p in (path, header))
    if room and not its_room:
        return "the libraries do not include what is outside them"
    if room and room != its_room and LEVEL[its_room] >= LEVEL[room] and (path, header) not in UPWARD:
        return "an include goes down or stays in its room: see LAYERS in scripts/include_rules.py"
    if is_internal(header) and header not in FORCED:
        if room and path.endswith(".hpp") and (path in FORCED or not is_internal(path)):
            return "an installed header cannot include one that is not installed"
        if not below(path, INSIDERS) or below(path, OUTSIDERS):
            return "an internal header in a program that shows hosts how it is done"
    return None


SAMPLES = {
    True: """
        vision/text/internal/utf8.cpp           vision/records/bytes.hpp
        vision/settings/settings.cpp            vision/records/bytes.hpp
        vision/client/vision_client.hpp         vision/client/http/http_messages_client.hpp
        vision/wirein/act_loop.cpp              vision/client/http/http_messages_client.hpp
        vision/wirein/act_loop.cpp              vision/vision.hpp
        vision/page/execute_action.cpp          chromium/page.hpp
        vision/page/execute_action.cpp          tests/support/scripted.hpp
        vision/wirein/act_loop.hpp              vision/wirein/internal/act_rails.hpp
        vision/wirein/act_loop.cpp              vision/replay/cassette.hpp
        vision/testing/virtual_time.hpp         vision/runtime/internal/await.hpp
        chromium/protocol/session.cpp           chromium/page.hpp
        chromium/page.hpp                       chromium/protocol/session.hpp
        examples/modes/pipeline.cpp             vision/text/internal/utf8.hpp
        tests/consumer/logging.cpp              chromium/protocol/session.hpp""",
    False: """
        vision/wirein/act_loop.cpp              vision/text/internal/utf8.hpp
        vision/wirein/internal/act_rails.hpp    vision/text/internal/utf8.hpp
        vision/client/vision_client.hpp         vision/client/http/http_options.hpp
        vision/vision.hpp                       vision/wirein/act_loop.hpp
        vision/replay/cassette_page.cpp         vision/replay/internal/tape.hpp
        chromium/process/process.cpp            chromium/launch_options.hpp
        chromium/page.cpp                       chromium/protocol/session.hpp
        examples/demo/report.cpp                vision/text/internal/utf8.hpp
        examples/modes/pipeline.cpp             examples/modes/stage.hpp
        tests/world/world_test.cpp              chromium/protocol/session.hpp""",
}


def faults(path, text):
    """Of every include that is refused, where it stands and why."""
    for m in re.finditer(r'^\s*#\s*include\s*"([^"]+)"', text, re.M):
        if why := fault(path, m.group(1)):
            yield m.start(1), f"{m.group(1)}: {why}"


def wrong_samples():
    return [f"include: {'not' if refused else 'wrongly'} refused: {' '.join(line.split())}" for refused, lines in SAMPLES.items()
            for line in lines.strip().split("\n") if bool(fault(*line.split())) != refused]
