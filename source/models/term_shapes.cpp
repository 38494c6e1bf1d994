// The smoothed hinge terms. Between the lower and the upper knot the corner at t
// is replaced by the cubic that meets both straight pieces with equal value and
// slope, so a score moves smoothly as a feature crosses a knot.
#include "models.h"

namespace ksieve {

double RightTerm(double x, double a, double t, double b) {
    if (x <= a) {
        return 0.0;
    }
    if (x >= b) {
        return x - t;
    }
    const double width = b - a;
    const double p = (2.0 * b + a - 3.0 * t) / (width * width);
    const double r = (2.0 * t - b - a) / (width * width * width);
    const double d = x - a;
    return p * (d * d) + r * (d * d * d);
}

double LeftTerm(double x, double a, double t, double b) {
    if (x >= b) {
        return 0.0;
    }
    if (x <= a) {
        return t - x;
    }
    const double width = a - b;
    const double p = (3.0 * t - 2.0 * a - b) / (width * width);
    const double r = (a + b - 2.0 * t) / (width * width * width);
    const double d = x - b;
    return p * (d * d) + r * (d * d * d);
}

double TermValue(const MarsTerm& term, double x) {
    return term.side == MarsSide::right ? RightTerm(x, term.a, term.t, term.b)
                                        : LeftTerm(x, term.a, term.t, term.b);
}

}  // namespace ksieve
