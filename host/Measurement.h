#pragma once
// Measurement results: the object-model tuple used as a result shape, and the intensity-extrema
// measurement (two arrays of doubles shaped by a three-entry tuple).
#include <cstdint>
#include <string>
#include <vector>

namespace object_model {

class Tuple {
public:
    std::uint64_t& operator[](unsigned long i) { return m_values.at(i); }
    std::uint64_t operator[](unsigned long i) const { return m_values.at(i); }
    unsigned long size() const { return m_values.size(); }
    std::uint64_t product() const;

protected:
    std::vector<std::uint64_t> m_values;
};

class TupleX : public Tuple {
public:
    explicit TupleX(unsigned long n);
    ~TupleX();
};

} // namespace object_model

namespace lyn {
namespace analysis {

// A dense array of doubles with up to three indices; index 0 varies fastest.
class ResultArray {
public:
    void setShape(const object_model::Tuple& shape);
    const std::vector<std::uint64_t>& shape() const { return m_shape; }
    std::uint64_t stride1() const { return m_s1; }
    std::uint64_t stride2() const { return m_s2; }
    double& at(std::uint64_t a, std::uint64_t b = 0, std::uint64_t c = 0);
    double at(std::uint64_t a, std::uint64_t b = 0, std::uint64_t c = 0) const;
    const std::vector<double>& values() const { return m_values; }

private:
    std::vector<std::uint64_t> m_shape{1, 1, 1};
    std::uint64_t m_s1 = 1, m_s2 = 1;
    std::vector<double> m_values = std::vector<double>(1, 0.0);
};

// One extreme exactly as the image holds it: a double cannot hold every 64-bit integer, and an
// element without values (empty, or NaN only) has no extreme at all.
class ExactValue {
public:
    enum class Kind { None, Signed, Unsigned, Real };
    ExactValue() = default;
    static ExactValue ofSigned(std::int64_t v);
    static ExactValue ofUnsigned(std::uint64_t v);
    static ExactValue ofReal(double v);

    Kind kind() const { return m_kind; }
    bool hasValue() const { return m_kind != Kind::None; }
    std::int64_t asSigned() const { return m_signed; }
    std::uint64_t asUnsigned() const { return m_unsigned; }
    // The nearest double; NaN when there is no value.
    double toDouble() const;
    // Integers in full; reals with the fewest digits that read back to the same double, "inf",
    // "-inf"; "none" without a value.
    std::string toString() const;
    bool operator==(const ExactValue& o) const;

private:
    Kind m_kind = Kind::None;
    std::int64_t m_signed = 0;
    std::uint64_t m_unsigned = 0;
    double m_real = 0;
};

// Minimum and maximum per element. The double arrays hold NaN for an element without values; the
// exact arrays (same order) keep 64-bit integers whole. Both are filled by IntensityExtrema.
class IntensityExtremaMsr {
public:
    ResultArray& minimum() { return m_min; }
    ResultArray& maximum() { return m_max; }
    const ResultArray& minimum() const { return m_min; }
    const ResultArray& maximum() const { return m_max; }
    std::vector<ExactValue>& exactMinimum() { return m_exactMin; }
    std::vector<ExactValue>& exactMaximum() { return m_exactMax; }
    const std::vector<ExactValue>& exactMinimum() const { return m_exactMin; }
    const std::vector<ExactValue>& exactMaximum() const { return m_exactMax; }

private:
    ResultArray m_min;
    ResultArray m_max;
    std::vector<ExactValue> m_exactMin;
    std::vector<ExactValue> m_exactMax;
};

} // namespace analysis
} // namespace lyn
