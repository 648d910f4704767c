/*
 * A render, or the writing of its files, stopped on request (a signal).
 */
#ifndef DRUXHOST_INTERRUPTED_H
#define DRUXHOST_INTERRUPTED_H

#include <stdexcept>

namespace druxhost {

/* A render or its writing stopped on request (`signal` is what was stored
   in the stop flag); nothing half was written. */
struct RenderInterrupted : std::runtime_error {
    int signal;
    explicit RenderInterrupted(int sig) : std::runtime_error("interrupted"), signal(sig) {}
};

} // namespace druxhost

#endif
