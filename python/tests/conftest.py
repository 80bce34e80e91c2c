# SPDX-License-Identifier: Apache-2.0
import os
import pathlib

import pytest

REPO = pathlib.Path(__file__).resolve().parents[2]


def recordings_dir():
    """The shared recordings (../shared/recordings beside the repository, or $QUELTA_RECORDINGS)."""
    return pathlib.Path(os.environ.get("QUELTA_RECORDINGS", REPO.parent / "shared" / "recordings"))


@pytest.fixture(scope="session")
def recording():
    """Reads a shared recording by name, or skips the test without them."""
    import quelta

    def read(name):
        path = recordings_dir() / (name + ".csv.gz")
        if not path.exists():
            pytest.skip("shared recording %s not found" % path)
        return quelta.read_recording(path)

    return read
