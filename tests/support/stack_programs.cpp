// Sources of three languages, how they are compiled, and a script for the debugger. Whatever is asked for has
// its address taken, so that it stays in memory when code is optimised.

#include "stack_programs.h"

#include "command.h"

#include <fstream>
#include <sstream>

namespace orn_test {

namespace {

constexpr const char* cSource = R"(
struct point { int x; int y; };
struct line { struct point from; struct point to; };
union word { unsigned char byte; short half; long long whole; };
struct box { char tag; struct line side; union word value; struct point spots[3]; double scale; };
typedef struct box box_t;
struct node { int value; struct node* next; };

void __attribute__((noinline)) keep(void* p) { __asm__ volatile("" : : "r"(p) : "memory"); }
void keep_(void* p) { keep(p); }
void __attribute__((noinline)) stop_here(void) { __asm__ volatile("" : : : "memory"); }
void stop_here_(void) { stop_here(); }
int cpp_values(int);
void fortran_values_(int*);

int __attribute__((noinline)) scalars(int given) {
    char letter = 1; short small = 2; int number = 3; long wide = 4; long long widest = 5; double real = 6;
    void* address = &number;
    keep(&letter); keep(&small); keep(&number); keep(&wide); keep(&widest); keep(&real); keep(&address);
    keep(&given);
    stop_here(); /* stop */
    keep(&number);
    return number + given;
}
int __attribute__((noinline)) arrays(int given) {
    int numbers[10] = {given}; char text[7] = "orn"; short table[3][4] = {{1}}; int single[1] = {given};
    int unknown[given];
    keep(numbers); keep(text); keep(table); keep(single); keep(unknown);
    stop_here(); /* stop */
    keep(numbers);
    return numbers[3];
}
int __attribute__((noinline)) structures(int given) {
    struct box one = {1, {{2, 3}, {4, given}}, {5}, {{6, 7}}, 8}; const box_t other = one;
    union word plain = {9}; struct point pair[2] = {{1, 2}, {3, 4}}; struct point* leads = &pair[1];
    struct node chain = {given, 0};
    keep(&one); keep((void*)&other); keep(&plain); keep(pair); keep(&leads); keep(&chain);
    stop_here(); /* stop */
    keep(&one);
    return one.side.to.y;
}
int __attribute__((noinline)) blocks(int given) {
    int outer = given;
    keep(&outer);
    {
        long inner = given;
        keep(&inner);
        {
            char innermost[40];
            keep(innermost);
            stop_here(); /* stop */
            keep(innermost);
        }
        keep(&inner);
    }
    keep(&outer);
    return outer;
}
int __attribute__((noinline)) recurse(int depth) {
    int level = depth; int trail[4] = {depth};
    keep(&level); keep(trail);
    if (depth > 0)
        level += recurse(depth - 1);
    else
        stop_here(); /* stop */
    keep(&level); keep(trail);
    return level;
}
int main(int argc, char** argv) {
    int sum = scalars(argc) + arrays(argc + 2) + structures(argc) + blocks(argc) + recurse(argc + 2);
    sum += cpp_values(argc);
    (void)argv;
#ifdef WITH_FORTRAN
    fortran_values_(&sum);
#endif
    return sum & 0;
}
)";

constexpr const char* cppSource = R"(
extern "C" { void keep(void*); void stop_here(); int cpp_values(int); }
namespace shapes {
struct Base { int id; };
struct Counter { int hits; long total; int bump(int by) { return hits += by; } };
struct Nested { int before; struct Inner { int deep; } inner; int behind; };
struct Derived : Base { int own; };
template <typename T> struct Holder { T value; Counter counter; };
}
namespace {
int __attribute__((noinline)) members(int given) {
    shapes::Counter counter = {given, 2}; shapes::Nested nested = {1, {2}, 3}; shapes::Derived derived;
    shapes::Holder<double> holder;
    derived.id = 1; derived.own = 2; holder.value = given; holder.counter = counter;
    static int calls; bool flag = given > 1;
    keep(&counter); keep(&nested); keep(&derived); keep(&holder); keep(&calls); keep(&flag);
    stop_here(); /* stop */
    keep(&counter);
    return counter.hits + ++calls;
}
}
struct Worker {
    int base;
    int __attribute__((noinline)) method(int by) {
        long local = by + base;
        keep(&local);
        stop_here(); /* stop */
        keep(&local);
        return static_cast<int>(local);
    }
};
int cpp_values(int given) {
    Worker worker = {given};
    keep(&worker);
    return members(given) + worker.method(2);
}
)";

constexpr const char* fortranSource = R"(
subroutine fortran_values(given)
  implicit none
  type point
    integer :: x, y
  end type
  type box
    character :: tag
    type(point) :: corner
    double precision :: scale
  end type
  integer :: given, number, values(10), shifted(-2:3), table(3,4)
  double precision :: ratio
  character(len=9) :: text
  type(box) :: item
  number = given
  values = given
  shifted = 2
  table = 3
  ratio = 0.5
  text = 'orn'
  item%tag = 'a'
  item%corner%y = 4
  call keep(number); call keep(values); call keep(shifted); call keep(table); call keep(ratio)
  call keep(text); call keep(item)
  call stop_here() ! stop
  call keep(number); call keep(values); call keep(shifted); call keep(table); call keep(ratio)
  call keep(text); call keep(item)
end subroutine
)";

/// What is printed is read by readAnswers.
constexpr const char* scriptHead = R"(
import gdb
def run(command):
    return gdb.execute(command, to_string=True)
for source in ('vars.c', 'more.cpp', 'part.f90'):
    for number, line in enumerate(open(directory + '/' + source), 1):
        if line.rstrip(' */\n').endswith(' stop'):
            try:
                run('break %s:%d' % (source, number))
            except gdb.error:
                pass
def ask(frame):
    name = (frame.name() or '').split('(anonymous namespace)::')[-1].split('(')[0]
    pointer = 'rbp' if 'x86-64' in frame.architecture().name() else 'ebp'
    for expression in expressions.get(name, []):
        try:
            value = gdb.parse_and_eval(expression)
            # A return address may be behind what holds at the call.
            code = frame.pc() - (1 if frame.newer() else 0)
            print('ORN', name, expression, hex(code), hex(int(frame.read_register('sp'))),
                  hex(int(frame.read_register(pointer))), hex(int(value.address)), hex(value.type.sizeof))
        except Exception as error:
            print('NOT', name, expression, error)
try:
    run('set breakpoint pending off')
    run('run')
    while gdb.selected_inferior().pid:
        frame = gdb.newest_frame()
        while frame:
            frame.select()
            ask(frame)
            frame = frame.older()
        run('continue')
except gdb.error as error:
    print('END', error)
)";

std::string scriptFor(const std::string& directory) {
    std::string script = "directory = '" + directory + "'\nexpressions = {}\n";
    for (const StackExpression& each : stackExpressions())
        script += std::string("expressions.setdefault('") + each.function + "', []).append('" +
                  each.expression + "')\n";
    return script + scriptHead;
}

std::vector<DebuggerAnswer> readAnswers(const std::string& output) {
    std::vector<DebuggerAnswer> answers;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string mark;
        DebuggerAnswer answer;
        fields >> mark >> answer.function >> answer.expression >> std::hex;
        for (unsigned long long* value :
             {&answer.pc, &answer.stackPointer, &answer.framePointer, &answer.address, &answer.size})
            fields >> *value;
        if (mark == "ORN" && fields)
            answers.push_back(answer);
    }
    return answers;
}

bool works(const std::string& command) {
    int status = 0;
    commandOutput("{ " + command + "; } >/dev/null 2>&1", &status);
    return status == 0;
}

void write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

} // namespace

std::string StackBuild::name() const {
    return std::string(isClang ? "clang" : "gcc") + "-gdwarf-" + std::to_string(version) + "-m" +
           std::to_string(bits) + "-O" + std::to_string(optimisation);
}

std::vector<StackBuild> allStackBuilds() {
    std::vector<StackBuild> builds;
    for (const bool isClang : {false, true})
        for (const unsigned version : {2, 3, 4})
            for (const unsigned bits : {64, 32})
                for (const unsigned optimisation : {0, 1})
                    builds.push_back({isClang, version, bits, optimisation});
    return builds;
}

const std::vector<StackExpression>& stackExpressions() {
    static const char* const parameter = "a parameter is not searched";
    static const char* const element = "an array of one element has no known size";
    static const char* const unknown = "an array whose bound is computed has no known size";
    static const char* const count = "an array whose size is told by a count has no known size";
    static const char* const pointer = "a pointer is searched like the structure that it points to";
    static const char* const sizeless = "a pointer that does not tell its size has that of what it points to";
    static const char* const inside = "a structure that is defined inside another one ends the search";
    static const char* const base = "a base class has no members of its own here";
    static const char* const fixed = "a static variable lies on no stack";
    static const char* const first = "of a union the first member that covers wins";
    static const char* const space =
        "a function that is defined inside a namespace has no symbol with variables";
    static const std::vector<StackExpression> list = {
        {"scalars", "letter", "letter", "", ""},
        {"scalars", "small", "small", "", ""},
        {"scalars", "number", "number", "", ""},
        {"scalars", "wide", "wide", "", ""},
        {"scalars", "widest", "widest", "", ""},
        {"scalars", "real", "real", "", ""},
        {"scalars", "address", "address", "", sizeless},
        {"scalars", "given", "given", parameter, ""},
        {"arrays", "numbers", "numbers", "", count},
        {"arrays", "numbers[3]", "numbers", "", count},
        {"arrays", "text", "text", "", count},
        {"arrays", "text[6]", "text", "", count},
        {"arrays", "table", "table", "", count},
        {"arrays", "table[2][3]", "table", "", count},
        {"arrays", "single", "single", element, ""},
        {"arrays", "unknown[1]", "unknown", unknown, ""},
        {"structures", "one.tag", "one::tag", "", ""},
        {"structures", "one.side.from.x", "one::side::from::x", "", ""},
        {"structures", "one.side.to.y", "one::side::to::y", "", ""},
        {"structures", "one.value.byte", "one::value::byte", "", ""},
        {"structures", "one.value.whole", "one::value::whole", first, ""},
        {"structures", "one.spots[2].y", "one::spots", "", count},
        {"structures", "one.scale", "one::scale", "", ""},
        {"structures", "other.side.to.x", "other::side::to::x", "", ""},
        {"structures", "plain.byte", "plain::byte", "", ""},
        {"structures", "pair", "pair", "", count},
        {"structures", "pair[1].y", "pair", "", count},
        {"structures", "leads", "leads", pointer, ""},
        {"structures", "chain.value", "chain::value", "", ""},
        {"structures", "chain.next", "chain::next", "", ""},
        {"blocks", "outer", "outer", "", ""},
        {"blocks", "inner", "inner", "", ""},
        {"blocks", "innermost[39]", "innermost", "", count},
        {"recurse", "level", "level", "", ""},
        {"recurse", "trail", "trail", "", count},
        {"recurse", "trail[3]", "trail", "", count},
        {"members", "counter.hits", "counter::hits", "", space},
        {"members", "counter.total", "counter::total", "", space},
        {"members", "nested.before", "nested::before", inside, space},
        {"members", "nested.inner.deep", "nested::inner::deep", inside, space},
        {"members", "nested.behind", "nested::behind", inside, space},
        {"members", "derived.id", "derived::id", base, space},
        {"members", "derived.own", "derived::own", "", space},
        {"members", "holder.value", "holder::value", "", space},
        {"members", "holder.counter.total", "holder::counter::total", "", space},
        {"members", "calls", "calls", fixed, space},
        {"members", "flag", "flag", "", space},
        {"Worker::method", "local", "local", "", ""},
        {"cpp_values", "worker.base", "worker::base", "", ""},
        {"fortran_values", "number", "number", "", ""},
        {"fortran_values", "values", "values", "", ""},
        {"fortran_values", "values(3)", "values", "", ""},
        {"fortran_values", "shifted", "shifted", "", ""},
        {"fortran_values", "shifted(-2)", "shifted", "", ""},
        {"fortran_values", "table", "table", "", ""},
        {"fortran_values", "table(3,4)", "table", "", ""},
        {"fortran_values", "ratio", "ratio", "", ""},
        {"fortran_values", "text", "text", "", ""},
        {"fortran_values", "item%tag", "item::tag", "", ""},
        {"fortran_values", "item%corner%y", "item::corner::y", "", ""},
        {"fortran_values", "item%scale", "item::scale", "", ""},
    };
    return list;
}

std::string whyNoStackPrograms() {
    if (!works("gdb -nx -batch -ex 'python print(1)' | grep -q 1"))
        return "there is no gdb with python";
    for (const char* tool : {"gcc", "g++", "gfortran", "clang"})
        if (!works(std::string(tool) + " --version"))
            return std::string("there is no ") + tool;
    if (!works(
            "gdb -nx -batch -iex 'set debuginfod enabled off' -ex 'break main' -ex run -ex 'info registers' "
            "/bin/true 2>&1 | grep -q 'exited normally'"))
        return "programs cannot be run in gdb here: ptrace is forbidden, or gdb is not set up";
    if (!works(
            "for tool in gcc g++ gfortran; do echo | $tool -m32 -E -xc - || exit 1; done; "
            "d=$(mktemp -d) && echo 'int main() { return 0; }' > $d/a.c && gcc -m32 $d/a.c -o $d/a && $d/a; "
            "r=$?; rm -r $d; exit $r"))
        return "programs of 32 bits cannot be compiled or run here: g++-multilib, gfortran-multilib";
    return "";
}

std::string compileStackProgram(const StackBuild& build, const std::string& directory, std::string& log) {
    write(directory + "/vars.c", cSource);
    write(directory + "/more.cpp", cppSource);
    write(directory + "/part.f90", fortranSource);
    const std::string options = " -w -g -gdwarf-" + std::to_string(build.version) + " -m" +
                                std::to_string(build.bits) + " -O" + std::to_string(build.optimisation) +
                                " -fno-omit-frame-pointer ";
    const std::string program = build.name();
    std::string command = "cd '" + directory + "' && ";
    std::string objects = program + ".c.o " + program + ".cpp.o ";
    if (build.hasFortran()) {
        objects += program + ".f.o ";
        command += "gfortran -fallow-argument-mismatch" + options + "-c part.f90 -o " + program + ".f.o && ";
    }
    command += (build.isClang ? "clang" : "gcc") + options + (build.hasFortran() ? "-DWITH_FORTRAN " : "") +
               "-c vars.c -o " + program + ".c.o && ";
    command += (build.isClang ? "clang++" : "g++") + options + "-fno-exceptions -c more.cpp -o " + program +
               ".cpp.o && ";
    command += "g++ -no-pie -m" + std::to_string(build.bits) + " " + objects + "-o " + program;
    int status = 0;
    log = commandOutput("{ " + command + "; } 2>&1", &status);
    return status == 0 ? directory + "/" + program : "";
}

std::vector<DebuggerAnswer> askDebugger(const std::string& program, const std::string& directory,
                                        std::string& log) {
    const std::string script = program + ".py";
    write(script, scriptFor(directory));
    log = commandOutput("cd '" + directory + "' && gdb -nx -batch -iex 'set debuginfod enabled off' -x '" +
                        script + "' '" + program + "' 2>&1");
    return readAnswers(log);
}

} // namespace orn_test
