#!/usr/bin/env python3
# The program laid out as a package installs it, bin/ravletai with bin/ravlet-server beside it,
# on a private desktop. With nothing at its loopback origin it starts that server as its own
# child, which keeps its data under $XDG_DATA_HOME/RavletAI, and stops it at --quit. Where
# something answers already, or for another computer's origin (TEST-NET-1), a stand-in beside it
# is never started. The program is the test build, which takes its origin from the environment.
# Arguments: the program, the server, the stand-in, and a folder on the build's file system for
# the run's scratch.
# Exit code 77 means skipped.
import os, sys, tempfile, types
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from product import Program, Server, check, free_port, healthy, processes, run_scene, wait_until  # noqa


def scene(desktop, program, server, stand_in):
    desktop.start()
    answering = Server(desktop, server)
    for origin, beside in ((f"http://127.0.0.1:{free_port()}", server), (answering.base, stand_in),
                           (f"http://192.0.2.1:{free_port()}", stand_in)):
        # Hard links: the program looks for its server beside its resolved path, and the server is
        # told apart from the answering one by its path.
        folder = tempfile.mkdtemp(dir=desktop.scratch)
        os.link(program, folder + "/ravletai")
        (os.link if beside == server else os.symlink)(beside, folder + "/ravlet-server")
        app = Program(desktop, folder + "/ravletai", types.SimpleNamespace(base=origin))
        if beside == server:
            check(wait_until(lambda: healthy(origin), 30), f"a server answers at {origin}")
            check(list(processes(folder + "/ravlet-server").values()) == [app.process.pid], "the program's child")
            check(os.path.exists(desktop.env["XDG_DATA_HOME"] + "/RavletAI/server.sqlite"), "data in XDG_DATA_HOME")
        check(wait_until(lambda: desktop.is_viewable("Welcome to RavletAI"), 30), "the welcome panel opens")
        if beside == stand_in:
            check(not os.path.exists(folder + "/ravlet-server.started"), f"no server started for {origin}")
        check(app.run_again("--quit") == 0 and app.process.wait(timeout=15) == 0
              and not processes(folder + "/ravlet-server"), "--quit ends the program and its server")


def main(program, server, stand_in, work):
    return run_scene(lambda desktop: scene(desktop, program, server, stand_in),
                     scratch=tempfile.mkdtemp(prefix="layouts.", dir=work), logs=("program.log",), tail=40)


sys.exit(main(*sys.argv[1:]))
