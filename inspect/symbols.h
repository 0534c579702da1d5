/* The loaded module as its symbols: all that a look from outside needs. */
#ifndef INSPECT_SYMBOLS_H
#define INSPECT_SYMBOLS_H

namespace inspect {

class Symbols {
public:
    virtual ~Symbols() = default;

    /* The address of an exported function or variable. Throws when the module has none. */
    virtual void *symbol(const char *name) const = 0;
};

} // namespace inspect

#endif
