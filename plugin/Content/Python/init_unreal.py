"""Run by the editor when it starts: builds the link's menu and starts its server.

A fault here (a module built for another Python, say) must leave the editor's start alone, so it
ends in one line of the Output Log.
"""

import unreal


def _start_link():
    try:
        import kestrix

        if hasattr(kestrix, "register_menu"):
            kestrix.register_menu()
        kestrix.start()
    except Exception as error:
        unreal.log_warning(f"[Verrin] the link could not start: {error}")


_start_link()
