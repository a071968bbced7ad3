#include "host/Measurement.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "host/Exceptions.h"

namespace object_model {

std::uint64_t Tuple::product() const {
    std::uint64_t p = 1;
    for (auto v : m_values) p *= v;
    return p;
}

TupleX::TupleX(unsigned long n) { m_values.assign(n, 0); }
TupleX::~TupleX() = default;

} // namespace object_model

namespace lyn {
namespace analysis {

void ResultArray::setShape(const object_model::Tuple& shape) {
    m_shape.assign(3, 1);
    for (unsigned long i = 0; i < shape.size() && i < 3; ++i) m_shape[i] = shape[i];
    m_s1 = m_shape[0];
    m_s2 = m_shape[0] * m_shape[1];
    m_values.assign(m_s2 * m_shape[2], 0.0);
}

double& ResultArray::at(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    if (a >= m_shape[0] || b >= m_shape[1] || c >= m_shape[2])
        raise<RuleException>("Result index out of the measurement's shape", "host/Measurement", __LINE__);
    return m_values[a + b * m_s1 + c * m_s2];
}

double ResultArray::at(std::uint64_t a, std::uint64_t b, std::uint64_t c) const {
    return const_cast<ResultArray*>(this)->at(a, b, c);
}

ExactValue ExactValue::ofSigned(std::int64_t v) {
    ExactValue e;
    e.m_kind = Kind::Signed;
    e.m_signed = v;
    return e;
}

ExactValue ExactValue::ofUnsigned(std::uint64_t v) {
    ExactValue e;
    e.m_kind = Kind::Unsigned;
    e.m_unsigned = v;
    return e;
}

ExactValue ExactValue::ofReal(double v) {
    if (std::isnan(v)) return ExactValue();
    ExactValue e;
    e.m_kind = Kind::Real;
    e.m_real = v;
    return e;
}

double ExactValue::toDouble() const {
    switch (m_kind) {
    case Kind::Signed: return static_cast<double>(m_signed);
    case Kind::Unsigned: return static_cast<double>(m_unsigned);
    case Kind::Real: return m_real;
    default: return std::numeric_limits<double>::quiet_NaN();
    }
}

std::string ExactValue::toString() const {
    switch (m_kind) {
    case Kind::Signed: return std::to_string(m_signed);
    case Kind::Unsigned: return std::to_string(m_unsigned);
    case Kind::Real: {
        if (std::isinf(m_real)) return m_real > 0 ? "inf" : "-inf";
        char buf[32];
        for (int digits = 1; digits <= 17; ++digits) {
            std::snprintf(buf, sizeof buf, "%.*g", digits, m_real);
            if (std::strtod(buf, nullptr) == m_real) break;
        }
        return buf;
    }
    default: return "none";
    }
}

bool ExactValue::operator==(const ExactValue& o) const {
    if (m_kind != o.m_kind) return false;
    switch (m_kind) {
    case Kind::Signed: return m_signed == o.m_signed;
    case Kind::Unsigned: return m_unsigned == o.m_unsigned;
    case Kind::Real: return m_real == o.m_real;
    default: return true;
    }
}

} // namespace analysis
} // namespace lyn
