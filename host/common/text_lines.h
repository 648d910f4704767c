/*
 * Walking a text file read into memory line by line, with line numbers for
 * the messages of the readers (statistics files, OBJ meshes).
 */
#ifndef DRUXHOST_TEXT_LINES_H
#define DRUXHOST_TEXT_LINES_H

#include <sstream>
#include <string>

namespace druxhost {

/* Calls fn(line, n) for every line of `text`, n counting from 1. */
template <class F> void forEachLine(const std::string &text, F fn)
{
    std::istringstream in(text);
    std::string line;
    int n = 0;
    while (std::getline(in, line))
        fn(line, ++n);
}

} // namespace druxhost

#endif
