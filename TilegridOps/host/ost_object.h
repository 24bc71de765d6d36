#pragma once
#include "TilegridOps/host/any.h"
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/ptr.h"
#include "TilegridOps/host/string.h"

#include <cstddef>
#include <iosfwd>
#include <map>

namespace OST {

/// Text of the exception that a cancelled stage raises (`std::runtime_error`).
TILEGRID_API extern Corvid::String const exceptionMessage;

/// Carries the name under which a component lies in its object.
class TILEGRID_API Base {
public:
    Corvid::String const& name() const { return name_; }
    void setName(Corvid::String const& name) { name_ = name; }

protected:
    explicit Base(Corvid::String const& name) : name_(name) {}

private:
    Corvid::String name_;
};

/// A part of a native object: a tile tree, a topology or a channel. Copied when it is changed while others hold it.
class TILEGRID_API Component : public Base {
public:
    virtual ~Component();
    /// One line about the content, for people.
    virtual void dump(std::ostream& out) const = 0;
    /// Adds the bytes that hold content to `used`, and the bytes taken from the system to `reserved`. `withLookup` also
    /// counts what only speeds up access.
    virtual void memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const = 0;
    /// A deep copy.
    virtual void copyTo(Corvid::Ptr<Component>& copy) const = 0;
    virtual std::size_t size() const = 0;
    virtual bool empty() const = 0;
    /// Brings a dependent component up to date with its source after tiles or elements were added at the end.
    virtual void update(Component const& source) = 0;

protected:
    explicit Component(Corvid::String const& name) : Base(name) {}
    Component(Component const&) = default;
    Component& operator=(Component const&) = default;
};

/// The native form of a volume: named components, and the entries of the host object that are not geometry, which
/// travel with it. Copies share the components until one is extracted.
class TILEGRID_API Object {
public:
    /// The component, if it is there and is a C; null otherwise. Changes nothing.
    template <class C> Corvid::Ptr<C> component(Corvid::String const& name) const
    {
        auto found = components_.find(name);
        return found == components_.end() ? Corvid::Ptr<C>() : Corvid::dynamicPointerCast<C>(found->second);
    }
    /// Takes the component out, for its only owner: cloned if somebody else holds it as well. Null, and nothing taken,
    /// as above.
    template <class C> Corvid::MutablePtr<C> extractComponent(Corvid::String const& name)
    {
        auto found = components_.find(name);
        if (found == components_.end()) return {};
        Corvid::Ptr<C> shared = Corvid::dynamicPointerCast<C>(found->second);
        if (!shared) return {};
        components_.erase(found);
        return Corvid::toMutable(shared);
    }
    /// Stores a component under its own name, in place of one that had it. Null does nothing.
    void putComponent(Corvid::MutablePtr<Component> component);
    bool hasComponentFromName(Corvid::String const& name) const;
    template <class C> bool hasComponentFromName(Corvid::String const& name) const { return bool(component<C>(name)); }
    /// Removes the component of that name and hands it out (null if there was none).
    void removeComponent(Corvid::String const& name, Corvid::Ptr<Component>& removed);
    /// All names, in the order of their texts.
    Corvid::Array<Corvid::String> componentRange() const;

    /// Entries of the host object that are not geometry.
    std::map<Corvid::String, Corvid::Any>& attributes() { return attributes_; }
    std::map<Corvid::String, Corvid::Any> const& attributes() const { return attributes_; }

private:
    std::map<Corvid::String, Corvid::Ptr<Component>> components_;
    std::map<Corvid::String, Corvid::Any> attributes_;
};

}  // namespace OST
