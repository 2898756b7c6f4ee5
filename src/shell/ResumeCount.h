#pragma once

#include "OverlayViewModel.h"

class APIClient;

// The overlay's question whether the user has a resume, answered through the backend client.
class ResumeCount {
public:
    // Holds the client weakly: a count asked for after it is gone fails.
    static OverlayViewModel::ResumeCounter through(APIClient* api);
};
