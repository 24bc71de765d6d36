#include "TilegridOps/host/object.h"

#include "TilegridOps/host/fields.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/ost_object.h"

namespace OST {

Component::~Component() = default;

void Object::putComponent(Corvid::MutablePtr<Component> component)
{
    if (!component) return;
    const Corvid::String name = component->name();
    components_[name] = std::move(component);
}

bool Object::hasComponentFromName(Corvid::String const& name) const
{
    return components_.count(name) != 0;
}

void Object::removeComponent(Corvid::String const& name, Corvid::Ptr<Component>& removed)
{
    removed.reset();
    if (auto found = components_.find(name); found != components_.end()) {
        removed = std::move(found->second);
        components_.erase(found);
    }
}

Corvid::Array<Corvid::String> Object::componentRange() const
{
    Corvid::Array<Corvid::String> names;
    for (auto const& [name, component] : components_) names.push_back(name);
    return names;
}

}  // namespace OST

Core::Fields::ScalarField::~ScalarField() = default;

namespace Ostara {

bool Object::isA(Object const& object, Object const& prototype)
{
    for (Object const* level = &object; level; level = level->prototype_.get())
        if (level == &prototype) return true;
    return false;
}

Corvid::MutablePtr<Object> createObject()
{
    return Corvid::makeMutable<Object>();
}

namespace Geometry {

// Prototypes are compared by identity, so each is made once and never destroyed before the last object that refers to it.
Corvid::Ptr<Object> getVolumePrototype()
{
    static const Corvid::Ptr<Object> prototype = createObject();
    return prototype;
}

Corvid::Ptr<Object> getLevelSetPrototype()
{
    static const Corvid::Ptr<Object> prototype = Corvid::makeMutable<Object>(getVolumePrototype());
    return prototype;
}

Corvid::Ptr<Object> getPointCloudPrototype()
{
    static const Corvid::Ptr<Object> prototype = createObject();
    return prototype;
}

Corvid::MutablePtr<OST::Object> move_object_to_ost_volume(Object& object)
{
    Corvid::MutablePtr<OST::Object> native = Corvid::toMutable(object.native());
    if (native) native->attributes() = std::move(object.entries());
    return native;
}

Corvid::Ptr<OST::Object> shallow_copy_object_to_ost_volume(Object const& object)
{
    if (!object.native()) return {};
    auto view = Corvid::makeMutable<OST::Object>(*object.native());
    view->attributes() = object.entries();
    return view;
}

Corvid::MutablePtr<Object> move_ost_volume_to_object(OST::Object& native)
{
    const bool levelSet = native.hasComponentFromName(sVoxelSignedDistance);
    auto object = Corvid::makeMutable<Object>(levelSet ? getLevelSetPrototype() : getVolumePrototype());
    object->entries() = std::move(native.attributes());
    native.attributes().clear();
    object->native() = Corvid::makeMutable<OST::Object>(std::move(native));
    native = OST::Object();
    return object;
}

}  // namespace Geometry

namespace GeometryAlgorithms {

void copyNonGeoProperties(Corvid::Array<Corvid::Ptr<Object>> const& sources, Object& target)
{
    for (auto const& source : sources)
        if (source)
            for (auto const& [name, value] : source->entries())
                if (name != Geometry::sPointPosition) target.entries().try_emplace(name, value);
}

}  // namespace GeometryAlgorithms

}  // namespace Ostara
