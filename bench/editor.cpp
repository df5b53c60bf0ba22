// The cheapest editor there could be, and the bare calls on it.
//
// What the link costs beyond the editor's own work shows best against an editor whose calls cost
// next to nothing: each method here hands out an object that is there already. `bare_*` make the
// calls that a scan or an idle tick has to make, through the same layer as the module, and throw
// the results away.
#include <Python.h>
#include <structmember.h>

#include "python/clock.h"

namespace kestrix {

namespace {

struct Object {
  PyObject_HEAD PyObject *path;
  PyObject *label;
  PyObject *folder;
  PyObject *transform;
  PyObject *component;  // static mesh or light component
  PyObject *props;      // dict
};

PyObject *object_new(PyTypeObject *type, PyObject *, PyObject *) {
  auto *self = reinterpret_cast<Object *>(type->tp_alloc(type, 0));
  if (!self) return nullptr;
  for (PyObject **slot : {&self->path, &self->label, &self->folder, &self->transform,
                          &self->component, &self->props}) {
    *slot = Py_NewRef(Py_None);
  }
  Py_DECREF(self->props);
  self->props = PyDict_New();
  return reinterpret_cast<PyObject *>(self);
}

template <PyObject *Object::*Slot>
PyObject *hand_out(PyObject *self, PyObject *) {
  return Py_NewRef(reinterpret_cast<Object *>(self)->*Slot);
}

PyObject *component_by_class(PyObject *self, PyObject *) {
  return hand_out<&Object::component>(self, nullptr);
}

PyObject *get_property(PyObject *self, PyObject *name) {
  PyObject *value = PyDict_GetItemWithError(reinterpret_cast<Object *>(self)->props, name);
  if (!value) {
    if (!PyErr_Occurred()) PyErr_SetObject(PyExc_Exception, name);
    return nullptr;
  }
  return Py_NewRef(value);
}

PyObject *no(PyObject *, PyObject *) {
  return Py_NewRef(Py_False);
}
PyObject *yes(PyObject *, PyObject *) {
  return Py_NewRef(Py_True);
}

PyMethodDef object_methods[] = {
    {"get_path_name", &hand_out<&Object::path>, METH_NOARGS, nullptr},
    {"get_actor_label", &hand_out<&Object::label>, METH_NOARGS, nullptr},
    {"get_folder_path", &hand_out<&Object::folder>, METH_NOARGS, nullptr},
    {"get_actor_transform", &hand_out<&Object::transform>, METH_NOARGS, nullptr},
    {"get_component_by_class", &component_by_class, METH_O, nullptr},
    {"get_editor_property", &get_property, METH_O, nullptr},
    {"is_actor_being_destroyed", &no, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr}};

PyMemberDef object_members[] = {
    {"path", T_OBJECT, offsetof(Object, path), 0, nullptr},
    {"label", T_OBJECT, offsetof(Object, label), 0, nullptr},
    {"folder", T_OBJECT, offsetof(Object, folder), 0, nullptr},
    {"transform", T_OBJECT, offsetof(Object, transform), 0, nullptr},
    {"component", T_OBJECT, offsetof(Object, component), 0, nullptr},
    {"static_mesh_component", T_OBJECT, offsetof(Object, component), 0, nullptr},
    {"props", T_OBJECT, offsetof(Object, props), 0, nullptr},
    {nullptr, 0, 0, 0, nullptr}};

PyType_Slot object_slots[] = {{Py_tp_new, reinterpret_cast<void *>(&object_new)},
                              {Py_tp_methods, object_methods},
                              {Py_tp_members, object_members},
                              {0, nullptr}};
PyType_Spec object_spec = {"bench_editor.Object", sizeof(Object), 0,
                           Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, object_slots};

// Vectors and transforms: a quaternion hands out its axes.
struct Triple {
  PyObject_HEAD PyObject *parts[3];
};

template <size_t I>
PyObject *part(PyObject *self, PyObject *) {
  return Py_NewRef(reinterpret_cast<Triple *>(self)->parts[I]);
}

int triple_init(PyObject *self, PyObject *args, PyObject *) {
  auto *triple = reinterpret_cast<Triple *>(self);
  PyObject *a = nullptr;
  PyObject *b = nullptr;
  PyObject *c = nullptr;
  if (!PyArg_ParseTuple(args, "OOO", &a, &b, &c)) return -1;
  triple->parts[0] = Py_NewRef(a);
  triple->parts[1] = Py_NewRef(b);
  triple->parts[2] = Py_NewRef(c);
  return 0;
}

PyMethodDef triple_methods[] = {{"get_axis_x", &part<0>, METH_NOARGS, nullptr},
                                {"get_axis_y", &part<1>, METH_NOARGS, nullptr},
                                {"get_axis_z", &part<2>, METH_NOARGS, nullptr},
                                {nullptr, nullptr, 0, nullptr}};
PyMemberDef triple_members[] = {{"x", T_OBJECT, offsetof(Triple, parts[0]), 0, nullptr},
                                {"y", T_OBJECT, offsetof(Triple, parts[1]), 0, nullptr},
                                {"z", T_OBJECT, offsetof(Triple, parts[2]), 0, nullptr},
                                {"translation", T_OBJECT, offsetof(Triple, parts[0]), 0, nullptr},
                                {"rotation", T_OBJECT, offsetof(Triple, parts[1]), 0, nullptr},
                                {"scale3d", T_OBJECT, offsetof(Triple, parts[2]), 0, nullptr},
                                {"r", T_OBJECT, offsetof(Triple, parts[0]), 0, nullptr},
                                {"g", T_OBJECT, offsetof(Triple, parts[1]), 0, nullptr},
                                {"b", T_OBJECT, offsetof(Triple, parts[2]), 0, nullptr},
                                {nullptr, 0, 0, 0, nullptr}};
PyType_Slot triple_slots[] = {{Py_tp_new, reinterpret_cast<void *>(&PyType_GenericNew)},
                              {Py_tp_init, reinterpret_cast<void *>(&triple_init)},
                              {Py_tp_methods, triple_methods},
                              {Py_tp_members, triple_members},
                              {0, nullptr}};
PyType_Spec triple_spec = {"bench_editor.Triple", sizeof(Triple), 0, Py_TPFLAGS_DEFAULT,
                           triple_slots};

// SystemLibrary: one object with the methods that a tick calls.
PyMethodDef library_methods[] = {{"is_valid", &yes, METH_O, nullptr},
                                 {"get_frame_count", &no, METH_NOARGS, nullptr},
                                 {nullptr, nullptr, 0, nullptr}};
PyType_Slot library_slots[] = {{Py_tp_methods, library_methods}, {0, nullptr}};
PyType_Spec library_spec = {"bench_editor.Library", sizeof(PyObject), 0, Py_TPFLAGS_DEFAULT,
                            library_slots};

void touch_vector(py::handle vector) {
  get(vector, "x"_n);
  get(vector, "y"_n);
  get(vector, "z"_n);
}

/// The calls that every actor takes: alive, label, folder, transform, tags.
void touch_actor(py::handle actor) {
  call(unreal("SystemLibrary"_n), "is_valid"_n, actor);
  call(actor, "is_actor_being_destroyed"_n);
  call(actor, "get_actor_label"_n);
  str(call(actor, "get_folder_path"_n));
  py::object transform = call(actor, "get_actor_transform"_n);
  touch_vector(get(transform, "translation"_n));
  py::object rotation = get(transform, "rotation"_n);
  touch_vector(call(rotation, "get_axis_x"_n));
  touch_vector(call(rotation, "get_axis_y"_n));
  touch_vector(call(rotation, "get_axis_z"_n));
  touch_vector(get(transform, "scale3d"_n));
  prop(actor, "tags"_n);
}

void bare_meshes(const py::list &actors) {
  for (py::handle actor : actors) {
    touch_actor(actor);
    py::object component = get(actor, "static_mesh_component"_n);
    call(prop(component, "static_mesh"_n), "get_path_name"_n);
    prop(component, "override_materials"_n);
  }
}

/// Spot lights in candelas, with their settings.
void bare_lights(const py::list &actors) {
  for (py::handle actor : actors) {
    touch_actor(actor);
    for (const Name cls : {"DirectionalLight"_n, "SpotLight"_n}) is_a(actor, cls);
    py::object component = call(actor, "get_component_by_class"_n, unreal("LightComponent"_n));
    py::object color = prop(component, "light_color"_n);
    for (const Name channel : {"r"_n, "g"_n, "b"_n}) get(color, channel);
    for (const Name name : {"cast_shadows"_n, "use_temperature"_n, "temperature"_n, "intensity"_n,
                            "intensity_units"_n, "attenuation_radius"_n, "source_radius"_n,
                            "inner_cone_angle"_n, "outer_cone_angle"_n}) {
      prop(component, name);
    }
    get(unreal("LightUnits"_n), "CANDELAS"_n);
  }
}

/// What a tick must ask with a silent peer and nothing to do: twice the frame, three times the
/// clock, the world, the selection, a connection waiting at the listener, bytes waiting at the
/// peer's socket.
void bare_idle(py::handle listener, py::handle peer, int ticks) {
  for (int i = 0; i < ticks; ++i) {
    for (int n = 0; n < 2; ++n) call(unreal("SystemLibrary"_n), "get_frame_count"_n);
    for (int n = 0; n < 4; ++n) perf_counter();
    for (int n = 0; n < 2; ++n) {
      py::object worlds =
          invoke(unreal("get_editor_subsystem"_n), unreal("UnrealEditorSubsystem"_n));
      str(call(call(worlds, "get_editor_world"_n), "get_path_name"_n));
    }
    PyObject *stack[] = {nullptr, listener.ptr()};
    if (!PyObject_VectorcallMethod("accept"_n.ptr, stack + 1, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                   nullptr)) {
      PyErr_Clear();
    }
    py::object most = to_py(1048576);
    PyObject *read[] = {nullptr, peer.ptr(), most.ptr()};
    if (!PyObject_VectorcallMethod("recv"_n.ptr, read + 1, 2 | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                   nullptr)) {
      PyErr_Clear();
    }
  }
}

}  // namespace

}  // namespace kestrix

PYBIND11_MODULE(bench_editor, m) {
  using namespace kestrix;
  m.attr("Object") = own(PyType_FromSpec(&object_spec));
  m.attr("Triple") = own(PyType_FromSpec(&triple_spec));
  m.attr("Library") = own(PyType_FromSpec(&library_spec));
  m.def("bare_meshes", &bare_meshes);
  m.def("bare_lights", &bare_lights);
  m.def("bare_idle", &bare_idle);
}
