#include "traceOutput.h"

#include <cstdio>

namespace J2SE {

void StdTraceOutput::trace_error(const char* msg) const {
    fprintf(stderr, "%s", msg);
}

void StdTraceOutput::trace_warning(const char* msg) const {
    fprintf(stdout, "%s", msg);
}

void StdTraceOutput::trace_info(const char* msg) const {
    fprintf(stdout, "%s", msg);
}

}  // namespace J2SE
