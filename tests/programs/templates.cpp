// Templates, member functions, constructors, lambdas and nested name spaces, expanded into each other;
// landing pads and parts split off as cold; static variables with guards. No header of the library but one:
// the program is compiled many times over.

#include <stdlib.h>

namespace {

volatile int sink;
int counter;

struct Failure {
    int code;
};

__attribute__((cold, noinline)) void fail(int code) {
    sink = code;
    throw Failure{code};
}

inline int leaf(int x) {
    if (__builtin_expect(x == 12345, 0))
        fail(x);
    for (int i = 0; i < x; ++i)
        counter += i * x;
    return counter;
}

inline int middle(int x) {
    if (x > 3) {
        int y = leaf(x);
        return y + leaf(x + 1);
    }
    return leaf(x);
}

} // namespace

namespace shapes {

template <typename T>
struct Box {
    explicit Box(T initial) : value(initial) { sink = static_cast<int>(initial); }
    ~Box() { sink = 0; }
    T scaled(T by) const { return static_cast<T>(middle(static_cast<int>(value)) * by); }
    template <typename U>
    U as() const {
        return static_cast<U>(scaled(2));
    }
    T value;
};

namespace detail {

template <int Depth>
struct Tower {
    static int climb(int x) {
        int here = x + Depth;
        if (here & 1) {
            int odd = here * 3;
            return Tower<Depth - 1>::climb(odd) + sink;
        }
        return Tower<Depth - 1>::climb(here);
    }
};

template <>
struct Tower<0> {
    static int climb(int x) { return middle(x); }
};

} // namespace detail

class Shape {
public:
    Shape(int side);
    virtual ~Shape();
    virtual int area() const;
    static int count();

protected:
    int m_side;
};

class Cube : public Shape {
public:
    using Shape::Shape;
    ~Cube() override;
    int area() const override;
};

Shape::Shape(int side) : m_side(side) {
    ++counter;
}
Shape::~Shape() {
    --counter;
}
int Shape::area() const {
    return m_side * m_side;
}
int Shape::count() {
    static Box<int> counted{counter};
    return counted.value;
}
Cube::~Cube() {
    sink = m_side;
}
int Cube::area() const {
    return 6 * Shape::area() + detail::Tower<5>::climb(m_side);
}

} // namespace shapes

template <typename F>
inline int applied(F function, int x) {
    int result = function(x);
    return result + function(x + 1);
}

__attribute__((noinline)) int outer(int x) {
    static int calls;
    shapes::Box<int> box{x};
    shapes::Box<long> other{x + 1L};
    if (__builtin_expect(x == 1000, 0)) {
        shapes::Cube unlikely{x};
        sink = unlikely.area();
        abort();
    }
    const auto add = [&](int y) { return box.scaled(y) + static_cast<int>(other.as<long>()); };
    return applied(add, x) + ++calls;
}

namespace deep {
namespace er {

__attribute__((noinline)) int loop(int n) {
    int sum = 0;
    while (n-- > 0)
        sum += middle(n) + outer(n) + shapes::detail::Tower<3>::climb(n);
    return sum;
}

int guarded(int n) {
    try {
        shapes::Box<short> held{static_cast<short>(n)};
        return held.as<int>() + loop(n);
    } catch (const Failure& failure) {
        return failure.code;
    }
}

} // namespace er

template <typename... Ts>
int total(Ts... values) {
    int sum = 0;
    ((sum += leaf(static_cast<int>(values))), ...);
    return sum;
}

template int total<int, long>(int, long);

} // namespace deep

template struct shapes::Box<unsigned char>;

int main(int argc, char**) {
    shapes::Cube cube{argc};
    const shapes::Shape& shape = cube;
    int result = deep::er::guarded(argc) + shape.area() + shapes::Shape::count();
    for (int i = 0; i < argc; ++i)
        result += deep::total(i, 2L, 'c') + deep::er::loop(i);
    return result & 1;
}
