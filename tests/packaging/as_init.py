#!/usr/bin/env python3
"""Hands both sockets of the hub over as Android's init does: bound below SHD_ROOT, not listening yet,
their numbers in the environment. Usage: as_init.py PROGRAM [ARGUMENT...], which takes its place."""

import os
import socket
import sys

from project import System

os.makedirs(os.environ["SHD_ROOT"] + "/dev/socket", exist_ok=True)
for name in System().sockets:
    path = f"{os.environ['SHD_ROOT']}/dev/socket/{name}"
    if os.path.exists(path):
        os.unlink(path)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    os.chmod(path, 0o660)
    os.environ["ANDROID_SOCKET_" + name] = str(listener.detach())
for name in list(os.environ):
    if name.startswith("ANDROID_SOCKET_"):
        os.set_inheritable(int(os.environ[name]), True)
os.execvp(sys.argv[1], sys.argv[1:])
