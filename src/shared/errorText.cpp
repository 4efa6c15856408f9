#include "errorText.h"

#include <clocale>
#include <cstring>
#include <locale.h>

namespace J2SE {

// strerror() follows the process locale (a JVM may have set one) and may use a static buffer;
// strerror_l() with a private "C" locale gives the same English text on every thread.
static locale_t c_locale() {
    static locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    return locale;
}

const char* error_text(int err) {
    if (err == 0) return "";
    locale_t locale = c_locale();
    if (locale == static_cast<locale_t>(0)) return "Unknown error";
    return strerror_l(err, locale);
}

}  // namespace J2SE
