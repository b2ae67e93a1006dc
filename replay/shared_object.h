// A look at a shared object before it is loaded.
#pragma once

#include <string>

namespace replay
{

// Why `file` must not be loaded although the dynamic loader would try: not a regular file, or cut, which would end the
// host by a signal when the missing part is touched. Empty when there is no such reason; the loader has the others.
std::string shared_object_problem(const std::string &file);

} // namespace replay
