// The holder of a symbol's name. Symbols make one for every name that a module has, so it is small and lazy:
// one block of memory holds the object and the name behind it, and a form is made when somebody asks for it.
// What the mangled text means is orn_demangle_schemes.cpp's business.
//
// Left out on purpose: the options word (one form serves all) and the container format (the schemes tell
// themselves apart by their first letters).

#include "orn/demangler.h"

#include "orn_demangle_schemes.h"

#include <atomic>
#include <cstring>
#include <new>

namespace ORN_3_30 {

namespace {

/// Count and memory of both holders. The count is not guarded: a name belongs to one symbol, whose own rules
/// protect it.
class NameHolder : public ISymbolNameDemangler {
public:
    NameHolder() noexcept = default;
    NameHolder(const NameHolder&) = delete;
    NameHolder& operator=(const NameHolder&) = delete;
    virtual ~NameHolder() = default;

    unsigned addRef() override { return ++m_refCount; }
    unsigned release() override {
        unsigned count = --m_refCount;
        if (count == 0)
            delete this;
        return count;
    }

    /// Room for the name behind the object. A type of its own: a plain number would make the sized
    /// `operator delete` its counterpart.
    struct NameSize {
        std::size_t value;
    };
    static void* operator new(std::size_t size, NameSize name) { return ::operator new(size + name.value); }
    static void operator delete(void* memory) { ::operator delete(memory); }
    static void operator delete(void* memory, NameSize) { ::operator delete(memory); }

private:
    unsigned m_refCount = 0;
};

/// A name that is what it is: every form is the name, and none needs memory of its own.
class PlainName final : public NameHolder {
public:
    PlainName(const char* name, std::size_t size) noexcept { std::memcpy(text(), name, size); }

    const char* rawForm() override { return text(); }
    const char* demangledForm(unsigned) override { return text(); }
    const char* shortForm() override { return text(); }
    const char* fullForm() override { return text(); }

private:
    char* text() noexcept { return reinterpret_cast<char*>(this + 1); }
};

/// A mangled name. Forms are asked from several threads, with the symbol's lock and without it, so each is
/// published by one exchange; a thread that comes second drops its own work.
class MangledName final : public NameHolder {
public:
    MangledName(const char* name, std::size_t size) noexcept : m_full(nullptr), m_short(nullptr) {
        std::memcpy(text(), name, size);
    }
    ~MangledName() override {
        dropForm(m_full);
        dropForm(m_short);
    }

    const char* rawForm() override { return text(); }
    const char* demangledForm(unsigned) override { return form(m_full, demangler::fullText); }
    const char* shortForm() override { return form(m_short, demangler::shortText); }
    const char* fullForm() override { return form(m_full, demangler::fullText); }

private:
    using Form = std::atomic<char*>;

    char* text() noexcept { return reinterpret_cast<char*>(this + 1); }

    const char* form(Form& form, demangler::Text (*make)(const char*)) {
        if (const char* known = form.load(std::memory_order_acquire))
            return known;
        demangler::Text made = make(text());
        // A name that cannot be read gives itself, which also remembers that it was tried.
        char* mine = made ? made.get() : text();
        char* expected = nullptr;
        if (!form.compare_exchange_strong(expected, mine, std::memory_order_acq_rel))
            return expected;
        static_cast<void>(made.release());
        return mine;
    }

    void dropForm(Form& form) noexcept {
        char* known = form.load(std::memory_order_relaxed);
        if (known != text())
            std::free(known);
    }

    Form m_full;
    Form m_short;
};

template <typename Holder>
ISymbolNameDemangler* makeHolder(const char* name) {
    std::size_t size = std::strlen(name) + 1;
    return new (NameHolder::NameSize{size}) Holder(name, size);
}

} // namespace

SymMgrObjectPtr<ISymbolNameDemangler> ISymbolNameDemangler::create(const char* name, exec_format_t) {
    if (!name)
        name = "";
    return demangler::looksMangled(name) ? makeHolder<MangledName>(name) : makeHolder<PlainName>(name);
}

} // namespace ORN_3_30
