// The English text of an errno value, the same in every locale and safe from any thread.
#ifndef NOX_SHARED_ERROR_TEXT_H
#define NOX_SHARED_ERROR_TEXT_H

namespace J2SE {

// Text of `err` from the "C" locale ("No such file or directory"); error 0 gives "".
// The result stays valid for the life of the process.
const char* error_text(int err);

}  // namespace J2SE

#endif
