"""Writes the settings the stage scripts read: write_settings.py <file> <settings as JSON>."""

import json
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from wfcommon import write_json  # noqa: E402

write_json(sys.argv[1], json.loads(sys.argv[2]))
