/* The module whose addresses scripts/quickstart.sh resolves. Small on purpose; the functions that it looks up
   by name must stay functions of their own, hence the attribute. */
#include <stdio.h>

#define KEPT __attribute__((noinline))

KEPT unsigned greatestCommonDivisor(unsigned a, unsigned b) {
    while (b != 0) {
        unsigned rest = a % b;
        a = b;
        b = rest;
    }
    return a;
}

static inline unsigned long square(unsigned long value) {
    return value * value;
}

/* square() is compiled into this one: an address in it stands for two functions. */
KEPT unsigned long power(unsigned long base, unsigned exponent) {
    if (exponent == 0)
        return 1;
    unsigned long half = square(power(base, exponent / 2));
    return exponent % 2 == 0 ? half : half * base;
}

int main(void) {
    printf("%u %lu\n", greatestCommonDivisor(84, 30), power(3, 7));
    return 0;
}
