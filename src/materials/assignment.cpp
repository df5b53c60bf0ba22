#include "materials/assignment.h"

#include "assets/content.h"
#include "assets/importing.h"
#include "assets/rigs.h"
#include "materials/gltf_values.h"
#include "mirror/actors.h"
#include "mirror/mirrored.h"
#include "mirror/overrides.h"

namespace kestrix {

namespace {

/// What the peer wants on a slot.
struct Wish {
  py::object index;     // as the peer counts
  Py_ssize_t slot;      // -1: there is no such slot
  bool none;            // no material is wanted
  py::object material;  // None if it doesn't load, too
};

Wish wish_of(py::handle triple, py::handle sm) {
  const py::object path = nth(triple, 2);
  const bool none = !exists(path) || !truth(path);
  const py::object slot = _slot_index(sm, nth(triple, 1), nth(triple, 0));
  return {nth(triple, 0), slot.is_none() ? -1 : static_cast<Py_ssize_t>(integer(slot)), none,
          none ? py::none() : load_asset(path)};
}

/// Slot -> material: what is to be written.
using Changes = std::vector<std::pair<Py_ssize_t, py::object>>;

/// The last wish for a slot holds, also if it is for what the slot had.
void enter(Changes &changes, Py_ssize_t slot, py::handle now, py::handle wanted) {
  std::erase_if(changes, [&](const auto &change) { return change.first == slot; });
  if (!equal(now, wanted)) changes.emplace_back(slot, to_py(wanted));
}

void write(const Changes &changes, py::handle target) {
  for (const auto &[slot, material] : changes) call(target, "set_material"_n, slot, material);
}

void assign_to_asset(const py::dict &m) {
  const py::object path = given_or(m, "asset"_n, "");
  const py::object sm = is_ours(text(path)) ? load_asset(path) : py::none();
  if (!is_a(sm, "StaticMesh"_n)) return;
  Changes changes;
  each(given_or(m, "slots"_n, py::list()), [&](const py::object &triple) {
    const Wish wish = wish_of(triple, sm);
    if (wish.slot < 0 || !exists(wish.material)) return;
    enter(changes, wish.slot, call(sm, "get_material"_n, wish.slot), wish.material);
  });
  if (changes.empty()) return;
  call(sm, "modify"_n);
  write(changes, sm);
  save_asset(sm);
  _invalidate_viewports();
}

/// What a wish for an actor comes to: on the mesh asset and as an override of the component.
struct ActorChanges {
  Changes asset, component;
};

ActorChanges changes_for(const py::dict &m, py::handle sm, const py::list &overrides) {
  const bool asset_level = flag(m, "asset_level"_n);
  const py::list kept = list_of(given_or(m, "ov_slots"_n, py::list()));
  ActorChanges changes;
  each(given_or(m, "slots"_n, py::list()), [&](const py::object &triple) {
    const Wish wish = wish_of(triple, sm);
    // A material that is missing never clears a slot.
    if (wish.slot < 0 || (!wish.none && !exists(wish.material))) return;
    const auto at = static_cast<size_t>(wish.slot);
    const py::object own_material = call(sm, "get_material"_n, wish.slot);
    py::object wanted = wish.material;
    if (asset_level && kept.contains(wish.index)) {
      // stays an override, whatever the asset has
    } else if (asset_level && !wish.none) {
      enter(changes.asset, wish.slot, own_material, wish.material);
      wanted = py::none();
    } else if (equal(wanted, own_material)) {
      wanted = py::none();
    }
    const py::object now = at < overrides.size() ? py::object(overrides[at]) : py::none();
    enter(changes.component, wish.slot, now, wanted);
  });
  return changes;
}

py::list overrides_of(py::handle component) {
  return attempt(
      [&] {
        const py::object overriding = prop(component, "override_materials"_n);
        return exists(overriding) ? list_of(overriding) : py::list();
      },
      py::list());
}

void note_overrides(py::handle aid, py::handle component, py::handle sm) {
  const py::object info = known_info(aid);
  if (!info) return;
  const py::list rows = _overrides(component, sm);
  if (rows.empty()) {
    drop(info, "mats"_n);
  } else {
    put(info, "mats"_n, rows);
  }
}

void assign_to_mesh_actor(const py::dict &m, py::handle actor) {
  const py::object component = get(actor, "static_mesh_component"_n);
  const py::object sm = prop(component, "static_mesh"_n);
  const ActorChanges changes = changes_for(m, sm, overrides_of(component));
  if (!changes.asset.empty() || !changes.component.empty()) {
    in_transaction("Verrin: materials " + text(label_of(actor)), [&] {
      if (!changes.asset.empty()) call(sm, "modify"_n);
      write(changes.asset, sm);
      if (!changes.component.empty()) call(actor, "modify"_n);
      write(changes.component, component);
    });
    if (!changes.asset.empty()) save_asset(sm);
  }
  note_overrides(item(m, "id"_n), component, sm);
  _invalidate_viewports();
}

}  // namespace

py::object _slot_index(py::handle sm, py::handle name, py::handle index) {
  const py::list slots = exists(sm) ? list_of(prop(sm, "static_materials"_n)) : py::list();
  const std::string wanted = _mat_key(name);
  const auto named = [&](py::handle found) { return _mat_key(found) == wanted; };
  for (size_t i = 0; exists(name) && truth(name) && i < slots.size(); ++i) {
    const py::object slot = slots[i];
    const py::object material = prop(slot, "material_interface"_n);
    if (named(prop(slot, "material_slot_name"_n)) ||
        (exists(material) && named(call(material, "get_name"_n)))) {
      return to_py(i);
    }
  }
  return element(slots, index) ? to_py(index) : py::object(py::none());
}

void _h_assign(const py::dict &m) {
  const py::object aid = given_or(m, "id"_n, "");
  if (!truth(aid)) return assign_to_asset(m);
  const py::object actor = _find_actor(aid);
  if (!exists(actor)) return;
  if (is_a(actor, "SkeletalMeshActor"_n)) {
    return _assign_skel(actor, given_or(m, "slots"_n, py::list()));
  }
  if (is_a(actor, "StaticMeshActor"_n)) assign_to_mesh_actor(m, actor);
}

void bind_assignment(py::module_ &m) {
  def(m, "_slot_index", &_slot_index, py::arg("sm").none(true), py::arg("name").none(true),
      py::arg("index"));
  bind_handler(m, "assign", &_h_assign, {.in_level = true});
}

}  // namespace kestrix
