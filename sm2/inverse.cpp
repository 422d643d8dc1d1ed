// Inversion by division steps: Bernstein and Yang, "Fast constant-time gcd computation and modular
// inversion", CHES 2019. The variant that starts at delta = 1/2 is done after 590 steps for numbers
// of 256 bits; Hvass, Aranha and Spitters, "High-assurance field inversion for curve-based
// cryptography", CSF 2023, prove the bound by machine.
//
// A step looks at the lowest bits of f and g only, so 60 steps run on one limb of each and are kept
// as a matrix, which then takes f, g and their cofactors d, e along at once.
#include "sm2/inverse.h"

namespace sm2 {
static constexpr int STEPS = 60;  // of one matrix
static constexpr int ROUNDS = 10;
static_assert(STEPS * ROUNDS >= 590, "the proven bound for 256 bits");
static constexpr int LIMB_BITS = 60;
static constexpr uint64_t LIMB_MASK = (uint64_t{1} << LIMB_BITS) - 1;

namespace {
// A signed number: limbs of 60 bits, least significant first, the last one with the sign.
struct Signed300 {
  int64_t limb[5];
};

// 2^60 (f', g') = (u f + v g, q f + r g), and |u| + |v|, |q| + |r| are at most 2^60.
struct Matrix {
  int64_t u, v, q, r;
};
}  // namespace

static constexpr Signed300 Spread(const U256& a) {
  Signed300 s{};
  for (int i = 0; i < 5; i++) {
    const int bit = i * LIMB_BITS, word = bit / 64, shift = bit % 64;
    uint64_t limb = a.limb[word] >> shift;
    if (shift > 64 - LIMB_BITS && word < 3) limb |= a.limb[word + 1] << (64 - shift);
    s.limb[i] = static_cast<int64_t>(limb & LIMB_MASK);
  }
  return s;
}

static constexpr U256 Pack(const Signed300& s) {
  U256 a{};
  for (int i = 0; i < 5; i++) {
    const int bit = i * LIMB_BITS, word = bit / 64, shift = bit % 64;
    a.limb[word] |= static_cast<uint64_t>(s.limb[i]) << shift;
    if (shift > 64 - LIMB_BITS && word < 3) {
      a.limb[word + 1] |= static_cast<uint64_t>(s.limb[i]) >> (64 - shift);
    }
  }
  return a;
}

namespace {
// The running values of division steps. Only the lowest bits of f and g count, one fewer after
// each step; `zeta` is -(delta + 1/2).
struct StepState {
  uint64_t f, g, zeta;
};
}  // namespace

// HalfMatrix makes 30 steps. A row of the matrix, whose entries stay below 2^31, is one number
// x + 2^32 y: the steps are linear, so both entries are worked on at once.
static Matrix HalfMatrix(StepState& state) {
  StepState s = state;
  uint64_t uv = 1, qr = uint64_t{1} << 32;
#pragma GCC unroll 30
  for (int i = 0; i < STEPS / 2; i++) {
    // Where delta > 0 and g is odd, (f, g) becomes (g, (g - f) / 2); else g becomes g / 2 or, when
    // odd, (g + f) / 2. Instead of halving g, q and r, double f, u and v: g is shifted left by i.
    const uint64_t positive = static_cast<uint64_t>(static_cast<int64_t>(s.zeta) >> 63);
    const uint64_t odd = Opaque(static_cast<uint64_t>(static_cast<int64_t>(s.g << (63 - i)) >> 63));
    const uint64_t swap = positive & odd;
    const uint64_t oldG = s.g, oldQR = qr;
    s.g += ((s.f ^ positive) & odd) - swap;
    qr += ((uv ^ positive) & odd) - swap;
    s.f = (s.f ^ ((s.f ^ oldG) & swap)) << 1;
    uv = (uv ^ ((uv ^ oldQR) & swap)) << 1;
    s.zeta = (s.zeta ^ swap) - 1;
  }
  s.f >>= STEPS / 2;
  s.g >>= STEPS / 2;
  state = s;
  const int64_t u = static_cast<int32_t>(uv), q = static_cast<int32_t>(qr);
  return {u, (static_cast<int64_t>(uv) - u) >> 32, q, (static_cast<int64_t>(qr) - q) >> 32};
}

// DivisionSteps makes 60 steps: the product of two matrices.
static Matrix DivisionSteps(StepState& state) {
  const Matrix a = HalfMatrix(state);
  const Matrix b = HalfMatrix(state);
  return {b.u * a.u + b.v * a.q, b.u * a.v + b.v * a.r, b.q * a.u + b.r * a.q,
          b.q * a.v + b.r * a.r};
}

static int64_t LowLimb(int128 value) {
  return static_cast<int64_t>(static_cast<uint64_t>(value) & LIMB_MASK);
}

// UpdateFG replaces (f, g) by t (f, g) / 2^60; the division is exact.
static void UpdateFG(Signed300& f, Signed300& g, const Matrix& t) {
  int128 atF = int128{t.u} * f.limb[0] + int128{t.v} * g.limb[0];
  int128 atG = int128{t.q} * f.limb[0] + int128{t.r} * g.limb[0];
  for (int i = 1; i < 5; i++) {
    const int64_t fi = f.limb[i], gi = g.limb[i];
    atF = (atF >> LIMB_BITS) + int128{t.u} * fi + int128{t.v} * gi;
    atG = (atG >> LIMB_BITS) + int128{t.q} * fi + int128{t.r} * gi;
    f.limb[i - 1] = LowLimb(atF);
    g.limb[i - 1] = LowLimb(atG);
  }
  f.limb[4] = static_cast<int64_t>(atF >> LIMB_BITS);
  g.limb[4] = static_cast<int64_t>(atG >> LIMB_BITS);
}

// UpdateDE replaces (d, e) by t (d, e) / 2^60 mod m. Both stay between -2m and m: negative ones
// count as d + m, e + m, which makes the products less than 2^60 m in size, and then less than
// 2^60 times m is taken away to make the division exact.
static void UpdateDE(Signed300& d, Signed300& e, const Matrix& t, const Signed300& m,
                     uint64_t inverse) {
  const int64_t dSign = d.limb[4] >> 63, eSign = e.limb[4] >> 63;
  int64_t md = (t.u & dSign) + (t.v & eSign);
  int64_t me = (t.q & dSign) + (t.r & eSign);
  int128 atD = int128{t.u} * d.limb[0] + int128{t.v} * e.limb[0];
  int128 atE = int128{t.q} * d.limb[0] + int128{t.r} * e.limb[0];
  md -= static_cast<int64_t>((inverse * static_cast<uint64_t>(atD) + static_cast<uint64_t>(md)) &
                             LIMB_MASK);
  me -= static_cast<int64_t>((inverse * static_cast<uint64_t>(atE) + static_cast<uint64_t>(me)) &
                             LIMB_MASK);
  atD += int128{m.limb[0]} * md;
  atE += int128{m.limb[0]} * me;
  for (int i = 1; i < 5; i++) {
    const int64_t di = d.limb[i], ei = e.limb[i];
    atD = (atD >> LIMB_BITS) + int128{t.u} * di + int128{t.v} * ei + int128{m.limb[i]} * md;
    atE = (atE >> LIMB_BITS) + int128{t.q} * di + int128{t.r} * ei + int128{m.limb[i]} * me;
    d.limb[i - 1] = LowLimb(atD);
    e.limb[i - 1] = LowLimb(atE);
  }
  d.limb[4] = static_cast<int64_t>(atD >> LIMB_BITS);
  e.limb[4] = static_cast<int64_t>(atE >> LIMB_BITS);
}

// Adjust returns (a ^ sign) - sign, that is a or -a, plus m under `addM`. Masks are 0 or -1.
static Signed300 Adjust(const Signed300& a, int64_t sign, const Signed300& m, int64_t addM) {
  Signed300 r{};
  int64_t carry = 0;
  for (int i = 0; i < 5; i++) {
    const int64_t limb = (a.limb[i] ^ sign) - sign + (m.limb[i] & addM) + carry;
    r.limb[i] = i < 4 ? static_cast<int64_t>(static_cast<uint64_t>(limb) & LIMB_MASK) : limb;
    carry = limb >> LIMB_BITS;
  }
  return r;
}

U256 Invert(const U256& a, const Modulus& M) {
  const Signed300 m = Spread(M.m);
  Signed300 f = m, g = Spread(a), d{}, e{{1, 0, 0, 0, 0}};
  StepState state = {0, 0, ~uint64_t{0}};  // delta = 1/2
  for (int i = 0; i < ROUNDS; i++) {
    state.f = static_cast<uint64_t>(f.limb[0]);
    state.g = static_cast<uint64_t>(g.limb[0]);
    const Matrix t = DivisionSteps(state);
    UpdateDE(d, e, t, m, uint64_t{0} - M.minusInverse);
    UpdateFG(f, g, t);
  }
  // Now g = 0 and f = d a mod m is 1 or -1. Bring d from (-2m, m) to (-m, m), give it the sign of
  // f, and bring it to [0, m).
  d = Adjust(d, 0, m, d.limb[4] >> 63);
  const int64_t sign = f.limb[4] >> 63;
  d = Adjust(d, sign, m, 0);
  return Pack(Adjust(d, 0, m, d.limb[4] >> 63));
}

}  // namespace sm2
