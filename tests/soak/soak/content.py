"""The files the soak clients write: behaviors of two kinds and opaque data."""

import hashlib
import random


def digest(data):
    return (len(data), hashlib.sha256(data).hexdigest())


def tags_of(client, kind):
    return sorted(["soak", client_tag(client), "kind-" + kind])


def client_tag(client):
    return f"soak-c{client:02d}"


def project_xml(name, client, kind):
    tags = "".join(f"  <tag>{tag}</tag>\n" for tag in tags_of(client, kind))
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<project>\n'
            '  <metadata key="Type" value="Behavior"/>\n'
            f'  <metadata key="Name" value="{name}"/>\n{tags}</project>\n').encode()


def behavior_xar(name, client, kind, rng):
    """A short behavior ends by itself within half a second; a long one repeats until it
    is stopped. Both touch the memory module, as real behaviors do, under keys of their
    client only (so the key set stays bounded)."""
    if kind == "short":
        steps = (f'  <log text="soak {name}" level="5"/>\n'
                 f'  <wait ms="{rng.randint(20, 400)}"/>\n'
                 f'  <set key="Soak/c{client:02d}/last" type="string" value="{name}"/>\n'
                 f'  <raise key="Soak/c{client:02d}/done" type="int" value="{rng.randint(0, 999)}"/>\n')
    else:
        steps = (f'  <set key="Soak/c{client:02d}/long" type="string" value="{name}"/>\n'
                 '  <repeat count="0">\n'
                 f'    <wait ms="{rng.randint(150, 300)}"/>\n'
                 f'    <raise key="Soak/c{client:02d}/tick" type="int" value="1"/>\n'
                 '  </repeat>\n')
    return f'<?xml version="1.0" encoding="UTF-8"?>\n<behavior>\n{steps}</behavior>\n'.encode()


def blob(rng):
    """Opaque bytes: mostly small, sometimes empty, now and then a megabyte."""
    roll = rng.random()
    if roll < 0.05:
        size = 0
    elif roll < 0.80:
        size = rng.randint(1, 16 * 1024)
    elif roll < 0.98:
        size = rng.randint(16 * 1024, 256 * 1024)
    else:
        size = rng.randint(512 * 1024, 1024 * 1024)
    return rng.randbytes(size)


def new_rng(seed):
    return random.Random(seed)
