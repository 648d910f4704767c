/*
 * `druxrender --describe LIB|SHADER`: what shader libraries declare, as
 * text: each shader with its version, result type and parameters (type,
 * array or ramp size, default), and whether the library's table form has
 * its layout checked against the shader's struct.
 */
#ifndef DRUXHOST_SHADER_DESCRIBE_H
#define DRUXHOST_SHADER_DESCRIBE_H

#include <string>
#include <vector>

namespace druxhost {

/* `what` ending in ".so" or holding a '/' is a library, linked as a scene's
   `link` would (along `folders`), and all its shaders are described; any
   other word is a shader name, looked for in the lib*.so files of `folders`
   in order.  Throws mirt::LoadError when neither is found. */
std::string describeShaders(const std::string &what, const std::vector<std::string> &folders);

} // namespace druxhost

#endif
