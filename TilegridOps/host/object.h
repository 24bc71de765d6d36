#pragma once
#include "TilegridOps/host/any.h"
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/ptr.h"
#include "TilegridOps/host/string.h"

#include <map>

namespace OST {
class Object;
}

namespace Ostara {

/// The host's dictionary: named values, a prototype that says what the object is, and for volumes the native object.
/// A prototype is an object without one of its own whose values are never looked at.
class TILEGRID_API Object {
public:
    Object() = default;
    explicit Object(Corvid::Ptr<Object> prototype) : prototype_(std::move(prototype)) {}

    /// Whether `object` is `prototype`, or descends from it.
    static bool isA(Object const& object, Object const& prototype);
    Corvid::Ptr<Object> const& prototype() const { return prototype_; }
    void setPrototype(Corvid::Ptr<Object> prototype) { prototype_ = std::move(prototype); }

    std::map<Corvid::String, Corvid::Any>& entries() { return entries_; }
    std::map<Corvid::String, Corvid::Any> const& entries() const { return entries_; }
    /// The entry, or null if it is missing or of another type. Valid until the object is changed.
    template <class T> T const* get(Corvid::String const& name) const
    {
        auto found = entries_.find(name);
        return found == entries_.end() ? nullptr : found->second.get<T>();
    }
    template <class T> void set(Corvid::String const& name, T value) { entries_[name] = Corvid::Any(std::move(value)); }

    Corvid::Ptr<OST::Object> const& native() const { return native_; }
    Corvid::Ptr<OST::Object>& native() { return native_; }

private:
    Corvid::Ptr<Object> prototype_;
    std::map<Corvid::String, Corvid::Any> entries_;
    Corvid::Ptr<OST::Object> native_;
};

/// A new object with nothing in it and no prototype.
TILEGRID_API Corvid::MutablePtr<Object> createObject();

}  // namespace Ostara
