#!/usr/bin/env python3
"""Changes a device file and makes its digest right again: edit_device.py FILE STATEMENTS

The statements see the decoded text as `d`, and the text itself as `t` if they set that."""
import hashlib
import json
import sys

path, statements = sys.argv[1:]
image = open(path, "rb").read()
size = int.from_bytes(image[4:8], "big")
names = {"d": json.loads(image[8 : 8 + size]), "t": None}
exec(statements, names)
text = names["t"] or json.dumps(names["d"], separators=(",", ":"), ensure_ascii=False)
text = text.encode()
with open(path, "wb") as file:
    file.write(image[:4] + len(text).to_bytes(4, "big") + text + hashlib.sha512(text).digest())
