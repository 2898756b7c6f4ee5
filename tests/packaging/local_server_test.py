#!/usr/bin/env python3
# The program laid out as a package installs it, with a stand-in for its server beside it, on a
# private desktop: it starts what is beside it where nothing answers at its loopback origin, and
# never where something answers already, or for another computer's origin (TEST-NET-1). (That
# the real server so started runs as its child, keeps its data under $XDG_DATA_HOME/RavletAI and
# ends at --quit is installed_program.py's check, on the installed package.) The program is the
# test build, which takes its origin from the environment.
# Arguments: the program, the server, the stand-in, and a folder on the build's file system for
# the run's scratch.
# Exit code 77 means skipped.
import os, sys, tempfile, types
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from product import Program, Server, check, free_port, run_scene, wait_until  # noqa


def scene(desktop, program, server, stand_in):
    desktop.start()
    answering = Server(desktop, server)
    for origin, starts in ((f"http://127.0.0.1:{free_port()}", True), (answering.base, False),
                           (f"http://192.0.2.1:{free_port()}", False)):
        # A hard link: the program looks for its server beside its resolved path; the stand-in
        # notes each start beside the link.
        folder = tempfile.mkdtemp(dir=desktop.scratch)
        os.link(program, folder + "/ravletai")
        os.symlink(stand_in, folder + "/ravlet-server")
        app = Program(desktop, folder + "/ravletai", types.SimpleNamespace(base=origin))
        check(wait_until(lambda: desktop.is_viewable("Welcome to RavletAI"), 30), "the welcome panel opens")
        # A stand-in never answers: the program gives up on it after 15 s and opens all the same.
        check(os.path.exists(folder + "/ravlet-server.started") == starts, f"{origin}: a server started: {starts}")
        check(app.run_again("--quit") == 0 and app.process.wait(timeout=15) == 0, "--quit ends the program")


def main(program, server, stand_in, work):
    return run_scene(lambda desktop: scene(desktop, program, server, stand_in),
                     scratch=tempfile.mkdtemp(prefix="layouts.", dir=work), logs=("program.log",), tail=40)


sys.exit(main(*sys.argv[1:]))
