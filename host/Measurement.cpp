#include "host/Measurement.h"

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

} // namespace analysis
} // namespace lyn
