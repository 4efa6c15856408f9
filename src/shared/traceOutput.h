// The sink that failing operations write their messages to. Every operation that can report a
// problem takes a `const TraceOutput*`; a null pointer means nothing is reported.
#ifndef NOX_SHARED_TRACE_OUTPUT_H
#define NOX_SHARED_TRACE_OUTPUT_H

namespace J2SE {

class TraceOutput {
public:
    virtual void trace_error(const char* msg) const = 0;
    virtual void trace_warning(const char* msg) const = 0;
    virtual void trace_info(const char* msg) const = 0;
    virtual ~TraceOutput() {}
};

// Prints the bare message: info and warning to standard output, errors to standard error.
// No prefix, no newline, no explicit flush.
class StdTraceOutput : public TraceOutput {
public:
    void trace_error(const char* msg) const override;
    void trace_warning(const char* msg) const override;
    void trace_info(const char* msg) const override;
};

}  // namespace J2SE

#endif
