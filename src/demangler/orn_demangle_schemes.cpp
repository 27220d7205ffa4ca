// Reads mangled names: C++ of the Itanium scheme ("_Z") and Rust of both schemes ("_R", and "_ZN" closed by a
// hash). orn_demangler.cpp calls it on the first request of a form.
//
// The grammars are not parsed here: the C++ runtime's abi::__cxa_demangle and libiberty do that. libiberty
// adds two things that the runtime does not give: the parsed tree, from which the short form is taken exactly
// where cutting it out of the text would have to guess ("operator<", function pointers, lambdas, casts), and
// output in pieces, which can be stopped.
//
// Names come from files that nobody vouches for, so the work is bounded three times: by the length of the
// name (the parsers recurse once a character in the worst case), by the stack that the printer would take,
// and by the length of the text, since back references double it with every few characters.
//
// Left out on purpose: the names of Windows compilers and of languages whose tools are not part of a Linux
// toolchain's own libraries. They stand for themselves.

#include "orn_demangle_schemes.h"

#include <csetjmp>
#include <cstddef>
#include <cstring>
#include <cxxabi.h>
#include <new>
#include <utility>

// libiberty.h would declare a basename of its own, which contradicts the C library's.
#define HAVE_DECL_BASENAME 1
#include <libiberty/demangle.h>

namespace ORN_3_30::demangler {

namespace {

/// Longest name that is read. Measured: at this length no nesting takes more than half a megabyte of stack.
constexpr std::size_t longestName = 4096;
/// Longest text that is given. A megabyte of template arguments tells a person nothing.
constexpr std::size_t longestText = 64 * 1024;
/// Up to this many back references a text cannot grow beyond a thousand times the name.
constexpr unsigned harmlessBackReferences = 20;
/// The printer keeps 16 bytes of stack for every pair of a template and a reference to a template parameter.
constexpr std::size_t mostSavedScopes = 16 * 1024;

constexpr int printOptions = DMGL_PARAMS | DMGL_ANSI;

// ---- Output

/// Collects what the printers of libiberty put out, and leaves them by a jump if it is too much: their
/// callbacks have no way to say stop, and an exception would have to cross frames of C.
struct Sink {
    std::jmp_buf leave;
    Text text;
    std::size_t size = 0;
    std::size_t capacity = 0;
    bool outOfMemory = false;
};

bool makeRoom(Sink& sink, std::size_t needed) noexcept {
    if (needed <= sink.capacity)
        return true;
    std::size_t capacity = sink.capacity ? 2 * sink.capacity : 256;
    while (capacity < needed)
        capacity *= 2;
    void* grown = std::realloc(sink.text.get(), capacity);
    if (!grown)
        return false;
    static_cast<void>(sink.text.release());
    sink.text.reset(static_cast<char*>(grown));
    sink.capacity = capacity;
    return true;
}

void put(const char* piece, std::size_t length, void* opaque) {
    Sink& sink = *static_cast<Sink*>(opaque);
    if (sink.size + length > longestText)
        std::longjmp(sink.leave, 1);
    if (!makeRoom(sink, sink.size + length + 1)) {
        sink.outOfMemory = true;
        std::longjmp(sink.leave, 1);
    }
    std::memcpy(sink.text.get() + sink.size, piece, length);
    sink.size += length;
    sink.text.get()[sink.size] = '\0';
}

/// Runs one printer into `sink`. Nothing between here and put() has a destructor.
template <typename Print>
bool printInto(Sink& sink, const Print& print) {
    if (setjmp(sink.leave) != 0)
        return false;
    return print(put, &sink) != 0;
}

template <typename Print>
Text printed(const Print& print) {
    Sink sink;
    bool complete = printInto(sink, print);
    if (sink.outOfMemory)
        throw std::bad_alloc();
    return complete && sink.size != 0 ? std::move(sink.text) : nullptr;
}

Text joined(const char* first, std::size_t firstLength, const char* second) {
    std::size_t secondSize = std::strlen(second) + 1;
    Text whole(static_cast<char*>(std::malloc(firstLength + secondSize)));
    if (!whole)
        throw std::bad_alloc();
    std::memcpy(whole.get(), first, firstLength);
    std::memcpy(whole.get() + firstLength, second, secondSize);
    return whole;
}

// ---- Names

/// A name without the version that a linker appended ("@GLIBCXX_3.4"), which no scheme knows.
struct CutName {
    char text[longestName + 1];
    const char* version;
};

/// False for a name that is longer than what is read.
bool cutVersion(const char* name, CutName& out) noexcept {
    std::size_t length = strnlen(name, longestName + 1);
    if (length > longestName)
        return false;
    const void* at = std::memchr(name, '@', length);
    out.version = at ? static_cast<const char*>(at) : name + length;
    length = static_cast<std::size_t>(out.version - name);
    std::memcpy(out.text, name, length);
    out.text[length] = '\0';
    return true;
}

Text withVersion(Text text, const char* version) {
    if (!text || *version == '\0')
        return text;
    return joined(text.get(), std::strlen(text.get()), version);
}

// ---- Rust

Text rustText(const char* name) {
    return printed([name](demangle_callbackref callback, void* opaque) {
        return rust_demangle_callback(name, printOptions, callback, opaque);
    });
}

bool opens(char c) noexcept {
    return c == '<' || c == '(' || c == '[' || c == '{';
}

bool closes(const char* text, const char* at) noexcept {
    return *at == ')' || *at == ']' || *at == '}' || (*at == '>' && (at == text || at[-1] != '-'));
}

/// The last component of a path, generic arguments included, as debug information writes it: "max<i32>",
/// where the path says "max::<i32>".
Text rustShortText(const char* text) {
    const char* begin = text;
    const char* arguments = nullptr;
    int depth = 0;
    for (const char* at = text; *at; ++at) {
        if (opens(*at))
            ++depth;
        else if (closes(text, at))
            --depth;
        else if (depth == 0 && at[0] == ':' && at[1] == ':') {
            if (at[2] == '<')
                arguments = at;
            else {
                begin = at + 2;
                arguments = nullptr;
            }
            ++at;
        }
    }
    if (!arguments)
        return joined("", 0, begin);
    return joined(begin, static_cast<std::size_t>(arguments - begin), arguments + 2);
}

// ---- C++

unsigned countBackReferences(const char* name) noexcept {
    unsigned count = 0;
    for (; *name; ++name)
        count += *name == 'S' || *name == 'T';
    return count;
}

/// Whether printing would save more template scopes than the stack should hold. The printer saves them for
/// every reference to a template parameter, once for each template, as far as they are known to be nested.
bool savesTooManyScopes(const char* name) noexcept {
    std::size_t references = 0;
    std::size_t templates = 0;
    for (; *name; ++name) {
        references += (*name == 'R' || *name == 'O') && (name[1] == 'T' || name[1] == 'S');
        templates += *name == 'I';
    }
    return references * templates > mostSavedScopes;
}

/// The parsed form of a C++ name; owns the memory that its nodes lie in.
class Tree {
public:
    explicit Tree(const char* name) {
        if (!savesTooManyScopes(name))
            m_root = cplus_demangle_v3_components(name, printOptions, &m_memory);
    }
    ~Tree() { std::free(m_memory); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    demangle_component* root() const noexcept { return m_root; }

private:
    void* m_memory = nullptr;
    demangle_component* m_root = nullptr;
};

Text printTree(demangle_component* tree) {
    return printed([tree](demangle_callbackref callback, void* opaque) {
        return cplus_demangle_print_callback(printOptions, tree, callback, opaque);
    });
}

/// What is left of a node when one layer around the bare name is taken off; null if there is no such layer.
demangle_component* insideOf(const demangle_component* node) noexcept {
    switch (node->type) {
    case DEMANGLE_COMPONENT_QUAL_NAME:
    case DEMANGLE_COMPONENT_LOCAL_NAME:
        return node->u.s_binary.right;
    case DEMANGLE_COMPONENT_TYPED_NAME:
    case DEMANGLE_COMPONENT_CLONE:
    case DEMANGLE_COMPONENT_TAGGED_NAME:
    case DEMANGLE_COMPONENT_RESTRICT_THIS:
    case DEMANGLE_COMPONENT_VOLATILE_THIS:
    case DEMANGLE_COMPONENT_CONST_THIS:
    case DEMANGLE_COMPONENT_REFERENCE_THIS:
    case DEMANGLE_COMPONENT_RVALUE_REFERENCE_THIS:
    case DEMANGLE_COMPONENT_TRANSACTION_SAFE:
    case DEMANGLE_COMPONENT_NOEXCEPT:
    case DEMANGLE_COMPONENT_THROW_SPEC:
        return node->u.s_binary.left;
    case DEMANGLE_COMPONENT_DEFAULT_ARG:
        return node->u.s_unary_num.sub;
    default:
        return nullptr;
    }
}

demangle_component* bareName(demangle_component* node) noexcept {
    while (demangle_component* inside = insideOf(node))
        node = inside;
    // "foo::max<int>" is a template of the name "foo::max", not the name "max<int>" inside "foo".
    if (node->type == DEMANGLE_COMPONENT_TEMPLATE)
        node->u.s_binary.left = bareName(node->u.s_binary.left);
    return node;
}

Text itaniumShortText(const char* name) {
    Tree tree(name);
    if (!tree.root())
        return nullptr;
    return printTree(bareName(tree.root()));
}

Text runtimeText(const char* name) {
    int status = 0;
    Text text(abi::__cxa_demangle(name, nullptr, nullptr, &status));
    if (status == -1)
        throw std::bad_alloc();
    return text;
}

/// The runtime reads most names. It refuses long ones and cannot be stopped when a text grows without end, so
/// those go to the printer that can.
Text itaniumText(const char* name) {
    if (savesTooManyScopes(name))
        return nullptr;
    if (countBackReferences(name) <= harmlessBackReferences)
        if (Text text = runtimeText(name))
            return text;
    Tree tree(name);
    return tree.root() ? printTree(tree.root()) : nullptr;
}

} // namespace

// ---- Entry points

bool looksMangled(const char* name) noexcept {
    return name[0] == '_' && (name[1] == 'Z' || name[1] == 'R');
}

// Rust comes first: its older scheme is valid C++ too, with the hash for a last name.
Text fullText(const char* name) {
    CutName plain;
    if (!cutVersion(name, plain))
        return nullptr;
    Text text = rustText(plain.text);
    if (!text && plain.text[1] == 'Z')
        text = itaniumText(plain.text);
    return withVersion(std::move(text), plain.version);
}

Text shortText(const char* name) {
    CutName plain;
    if (!cutVersion(name, plain))
        return nullptr;
    if (Text text = rustText(plain.text))
        return rustShortText(text.get());
    return plain.text[1] == 'Z' ? itaniumShortText(plain.text) : nullptr;
}

} // namespace ORN_3_30::demangler
