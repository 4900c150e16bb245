#include "range.h"

namespace ff {

Range& Range::operator+=(const Rational& t) {
    begin += t;
    end += t;
    return *this;
}

Range& Range::operator-=(const Rational& t) {
    begin -= t;
    end -= t;
    return *this;
}

Range& Range::operator*=(const Rational& t) {
    begin *= t;
    end *= t;
    return *this;
}

Range& Range::operator/=(const Rational& t) {
    begin /= t;
    end /= t;
    return *this;
}

Range Range::operator+(const Rational& t) const { return {begin + t, end + t}; }
Range Range::operator-(const Rational& t) const { return {begin - t, end - t}; }

bool Range::intersects(const Range& other) const { return begin < other.end && end > other.begin; }

}  // namespace ff
