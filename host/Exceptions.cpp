#include "host/Exceptions.h"

namespace lyn {

Exception::Exception(const ExceptionInfo& info) : m_info(info) { compose(); }
Exception::~Exception() = default;

void Exception::compose() {
    m_what = m_info.message;
    if (!m_info.file.empty()) {
        m_what += " [" + m_info.file + ":" + std::to_string(m_info.line) + "]";
    }
}

Exception::ExceptionInfo Exception::getInfo(bool withWhat) const {
    ExceptionInfo info = m_info;
    if (withWhat && info.message.empty()) info.message = what();
    return info;
}

const char* Exception::what() const noexcept { return m_what.c_str(); }

RuntimeError::RuntimeError(const ExceptionInfo& info) : Exception(info) {}
UnexpectedError::UnexpectedError(const ExceptionInfo& info) : Exception(info) {}
RuleException::RuleException(const ExceptionInfo& info) : Exception(info) {}
ExceptionCancelation::ExceptionCancelation() { m_what = "The operation was cancelled."; }

} // namespace lyn
