// Division for the lane sets with fused multiply-adds, written once: imaging/simd.h
// includes this inside the AVX2 and the AVX-512 sets, after their primitives.
// No include guard: included once per lane set.
//
// Quotients by one divisor b through its reciprocal y = 1 / b, correctly
// rounded: with q = a y, the quotient q + (a - q b) y, remainder and sum each
// one fused step, is a / b correctly rounded; two quotients by one divisor then
// take one division, not two. Why, for u the unit in the last place of a / b:
// with b = B 2^k, B a whole number below 2^53, y b = 1 + M 2^-105 for a whole M,
// |M| <= B / 2, so q is within 1.5 u of a / b and the sum is off a / b by less
// than 3 u 2^-53 (the shift), which reaches no midpoint between doubles farther
// than 2^-51 u from a / b. Within that of a midpoint, q is one of the two
// doubles around a / b (it could only be farther near the top of a binade with
// B near 2^53, where no quotient lies that near a midpoint), the remainder is
// then exact, and the shift is (a / b - q) M 2^-105, at most (u / 2 + d) B 2^-106
// for a / b at d from the midpoint. A quotient of doubles is never a midpoint
// and lies at least u / 2B from one, more than that shift as B (B + 1) < 2^106.
// So the sum rounds as a / b does. The argument needs every step in the normal
// range, which magnitudes of a and b from 2^-500 to 2^500 ensure; lanes
// outside it are divided.
RAWFX_LANE Md InQuotientRange(Vd v) {
  const Vd magnitude = Abs(v);
  return And(Ge(magnitude, Set(0x1p-500)), Le(magnitude, Set(0x1p500)));
}

struct Divisor {
  Vd value, reciprocal;
  Md inRange;
};

RAWFX_LANE Divisor DivisorOf(Vd b) { return {b, Set(1.0) / b, InQuotientRange(b)}; }

// A divisor the same in every lane, with its reciprocal worked out beforehand.
RAWFX_LANE Divisor DivisorOf(double b, double reciprocal) {
  const Vd value = Set(b);
  return {value, Set(reciprocal), InQuotientRange(value)};
}

RAWFX_LANE Vd Divide(Vd a, const Divisor& b) {
  if (Bits(And(b.inRange, InQuotientRange(a))) != (1 << kLanes) - 1) return a / b.value;
  const Vd q = a * b.reciprocal;
  return MulAdd(NegMulAdd(q, b.value, a), b.reciprocal, q);
}
