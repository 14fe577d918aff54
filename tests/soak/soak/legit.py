"""The errors that concurrent clients can legitimately get from the behavior manager,
each with the condition under which it is legitimate. Anything else is a failure."""

import re
from dataclasses import dataclass


@dataclass(frozen=True)
class Legit:
    methods: tuple      # the remote methods that may answer it
    pattern: str        # the whole description
    kind: str           # the name it is counted under
    needs_removal: bool  # legitimate only when the behavior was being removed meanwhile


LEGIT = [
    Legit(("runBehavior",), r"behavior (.+) is already running\.",
          "run: already running (another client runs it)", False),
    Legit(("runBehavior",), r"behavior (.+) failed to load\.",
          "run: failed to load (another run or stop changed the state after the load)", False),
    Legit(("runBehavior",), r"behavior instance \d+ \((.+)\) is already running",
          "run: the frame manager runs that instance already (two runs got the same id)", False),
    Legit(("runBehavior",), r'there is no behavior instance with the id "\d+"',
          "run: instance ended before its run began (stopped, another run ended, removed)", False),
    Legit(("stopBehavior",), r"behavior was found in an inconsistent state\.",
          "stop: arrived while the behavior was loading", False),
    Legit(("stopBehavior",), r"Behavior (.+) could not be stopped properly\.",
          "stop: the run did not clean up within 1 s", False),
    Legit(("runBehavior", "stopBehavior", "preloadBehavior", "addDefaultBehavior",
           "getBehaviorTags"),
          r"behavior (.+) is not installed\.?",
          "not installed (its owner removed it meanwhile)", True),
    Legit(("runBehavior", "preloadBehavior"), r"Could not load behavior (.+), yet file exists\.",
          "load: removed while the frame manager read it", True),
    Legit(("runBehavior", "preloadBehavior"), r"behavior file .+ does not exist",
          "load: behavior file deleted by a removal", True),
    Legit(("runBehavior", "preloadBehavior"), r"behavior file .+ cannot be read: .+",
          "load: behavior file deleted by a removal", True),
]

_COMPILED = [(legit, re.compile(legit.pattern, re.DOTALL)) for legit in LEGIT]


def classify(method, description, being_removed):
    """The kind under which an error of module method `method` (without module prefix) is
    counted, or None when it is not legitimate. `being_removed` tells whether the target
    behavior's removal had begun by the time the answer came."""
    if description is None:
        return None
    for legit, pattern in _COMPILED:
        if method in legit.methods and pattern.fullmatch(description):
            if legit.needs_removal and not being_removed:
                return None
            return legit.kind
    return None
