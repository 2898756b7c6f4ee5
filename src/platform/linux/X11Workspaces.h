#pragma once

class QWindow;

// Puts the window on every workspace of an X11 desktop (XWayland included), for the overlay
// that must follow the user to whichever workspace holds the call. Does nothing on any other
// windowing system.
void showOnAllWorkspaces(QWindow& window);
