#pragma once
// Host exception classes. Every failure that crosses the host/plug-in boundary is one of these,
// carrying a message and the source position that raised it.
#include <exception>
#include <string>

namespace lyn {

using String = std::string;

class Exception : public std::exception {
public:
    struct ExceptionInfo {
        String message;
        String file;
        int line = 0;
    };

    Exception() = default;
    explicit Exception(const ExceptionInfo& info);
    ~Exception() override;

    // The carried information; `withWhat` also fills the message with the readable text when empty.
    ExceptionInfo getInfo(bool withWhat = false) const;
    const char* what() const noexcept override;
    // The class name as shown to users ("RuntimeError", ...).
    virtual const char* kind() const noexcept { return "Exception"; }

protected:
    void compose();

    ExceptionInfo m_info;
    String m_what;
};

#define LYN_DECLARE_EXCEPTION(Name)                                          \
    class Name : public Exception {                                         \
    public:                                                                  \
        explicit Name(const ExceptionInfo& info);                            \
        const char* kind() const noexcept override { return #Name; }         \
    };

LYN_DECLARE_EXCEPTION(RuntimeError)
LYN_DECLARE_EXCEPTION(UnexpectedError)
LYN_DECLARE_EXCEPTION(RuleException)
#undef LYN_DECLARE_EXCEPTION

// Raised when an algorithm was asked to stop. It carries no information.
class ExceptionCancelation : public Exception {
public:
    ExceptionCancelation();
    const char* kind() const noexcept override { return "ExceptionCancelation"; }
};

// Builds an ExceptionInfo and throws E from it; `file` is a path from the source root, no extension.
template <class E>
[[noreturn]] void raise(const String& message, const char* file, int line) {
    Exception::ExceptionInfo info;
    info.file = file;
    info.line = line;
    info.message = message;
    throw E(info);
}

} // namespace lyn
