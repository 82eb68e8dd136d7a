#ifndef MAVIX_TEST_SCALE_H
#define MAVIX_TEST_SCALE_H

namespace MavixTest {

// Counts hold for the plain build; sanitizer builds, which are many times slower, run a tenth. The build sets
// the one factor.
constexpr unsigned int Scaled(unsigned int count) {
    return count / MAVIX_TEST_SCALE_DIVISOR > 0 ? count / MAVIX_TEST_SCALE_DIVISOR : 1;
}

} // namespace MavixTest

#endif
