// Threads the extension starts inside its host process.
#pragma once

#include <functional>
#include <thread>

namespace palvin {

// Runs `body` on a new thread that blocks every signal: the host's signals
// are the host's to handle, on threads of its own, and must never interrupt or
// run a handler on ours. Throws what std::thread throws when no thread can be
// started.
std::thread startQuietThread(std::function<void()> body);

}  // namespace palvin
