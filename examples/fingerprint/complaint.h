// Messages to the user on standard error.
#ifndef FINGERPRINT_COMPLAINT_H_
#define FINGERPRINT_COMPLAINT_H_

#include <string>

namespace fingerprint {

// Writes the line "fingerprint: " and `what` in one write, so that the lines of several
// workers don't mix. Wipes the progress line first.
void complain(const std::string& what);

// "PATH: No such file or directory", with errno's text.
std::string with_errno(const std::string& path, int error);

// On a terminal, shows `text` in place of the previous text; otherwise does nothing.
void show_progress(const std::string& text);

}  // namespace fingerprint

#endif  // FINGERPRINT_COMPLAINT_H_
