// The loopback interface of a network namespace that has just been made.
#pragma once

// Switches the interface on; throws std::system_error if that is not allowed.
void raiseLoopback();
