#pragma once
// Measurement results: the object-model tuple used as a result shape, and the intensity-extrema
// measurement (two arrays of doubles shaped by a three-entry tuple).
#include <cstdint>
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

class IntensityExtremaMsr {
public:
    ResultArray& minimum() { return m_min; }
    ResultArray& maximum() { return m_max; }
    const ResultArray& minimum() const { return m_min; }
    const ResultArray& maximum() const { return m_max; }

private:
    ResultArray m_min;
    ResultArray m_max;
};

} // namespace analysis
} // namespace lyn
