"""Every object that the client prints is what its schema says: that names every member, so one that was added fails too."""
import importlib.util

import bench
import transcript

if importlib.util.find_spec("jsonschema") is None:
    bench.skip("python3-jsonschema is missing: scripts/install-deps ci installs it")
transcript.main(__file__)
