#pragma once
// Checked downcast of the host's algorithm pointer to a concrete algorithm class.
#include <sstream>
#include <type_traits>
#include <typeinfo>

#include "host/Exceptions.h"

namespace lyn {
namespace helper {

// Returns p as To (a pointer type) when p is non-null and of that class; otherwise throws
// UnexpectedError naming both pointer types.
template <class To, class From>
To safe_cast(From p) {
    static_assert(std::is_pointer_v<To> && std::is_pointer_v<From>, "safe_cast converts pointers");
    if (p) {
        if (To result = dynamic_cast<To>(p)) return result;
    }
    Exception::ExceptionInfo info;
    info.file = "Core/private/Helper/safe_cast";
    info.line = 17;
    std::ostringstream message;
    message << "bad cast when casting " << typeid(From).name() << " into " << typeid(To).name();
    info.message = message.str();
    throw UnexpectedError(info);
}

} // namespace helper
} // namespace lyn
