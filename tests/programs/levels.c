// Calls expanded several levels deep, blocks with variables of their own, parts that are split off as cold,
// static variables of functions, and calls through pointers. Compiled by the tests, once for each compiler,
// version of the debug information and level of optimisation.

#include <stdio.h>
#include <stdlib.h>

#define COLD __attribute__((cold))
#define NOINLINE __attribute__((noinline))
#define UNLIKELY(condition) __builtin_expect(!!(condition), 0)

static volatile int sink;
static int counter;

COLD NOINLINE static void complain(const char* what, int number) {
    static int times;
    fprintf(stderr, "%s %d (%d)\n", what, number, ++times);
}

static inline int fifth(int x) {
    static int calls;
    calls += x;
    for (int i = 0; i < x; ++i)
        counter += i * calls;
    return counter ^ x;
}

static inline int fourth(int x) {
    if (UNLIKELY(x > 10000)) {
        complain("fourth", x);
        abort();
    }
    return fifth(x) + fifth(x + 1);
}

static inline int third(int x) {
    int sum = 0;
    {
        int inner = x * 3;
        {
            int innermost = inner + counter;
            sum += fourth(innermost);
        }
        sum += inner;
    }
    return sum;
}

static inline int second(int x) {
    if (x & 1)
        return third(x);
    return fourth(x) - x;
}

static inline int first(int x) {
    int kept = second(x);
    sink = kept;
    return kept + second(x + 2);
}

NOINLINE int outermost(int x) {
    static int calls;
    if (UNLIKELY(x < -1000)) {
        complain("outermost", x);
        sink = first(-x);
        exit(3);
    }
    for (int round = 0; round < 3; ++round) {
        int part = first(x + round);
        if (part > 100) {
            int over = part - 100;
            calls += over;
        } else {
            int under = 100 - part;
            calls -= under;
        }
    }
    return calls;
}

static int twice(int x) {
    return 2 * x;
}

static int negated(int x) {
    return -first(x);
}

static int (*const table[])(int) = {twice, negated, outermost};

int dispatched(unsigned which, int x) {
    switch (which % 5) {
    case 0:
        return table[0](x);
    case 1:
        return table[1](x) + 1;
    case 2:
        return table[2](x) * 3;
    case 3:
        return first(x) - twice(x);
    default:
        if (UNLIKELY(which > 1u << 30))
            complain("dispatched", x);
        return x;
    }
}

static long factorial(int n) {
    return n < 2 ? 1 : n * factorial(n - 1);
}

static int oldStyle(count, values)
int count;
const int* values;
{
    int sum = 0;
    while (count-- > 0)
        sum += values[count];
    return sum;
}

COLD int rarely(int x) {
    sink = x;
    return third(x) + (int)factorial(x & 7);
}

int main(int argc, char** argv) {
    int values[] = {argc, 2, 3};
    int result = oldStyle(3, values);
    for (int i = 0; i < argc * 3; ++i)
        result += dispatched((unsigned)i, i + argc);
    if (UNLIKELY(argc > 100))
        result += rarely(argc) + (argv[1] != 0);
    return result & 1;
}
