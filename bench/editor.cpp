// An editor for the measurements, and the bare calls on it.
//
// As in the real one each call gives a fresh object; unlike there it costs next to nothing, so that
// what the link adds shows best. Every call is counted, and may be made to cost more. `bare_*` make
// the calls that a scan or an idle tick has to make and throw the results away: through the names,
// or "tight", with the methods found beforehand.
#include <Python.h>
#include <structmember.h>

#include <chrono>

#include "python/clock.h"

namespace kestrix {

namespace {

long long calls = 0;
std::chrono::nanoseconds price{0};

/// Counts a call, and spends what one costs.
PyObject *counted(PyObject *result) {
  ++calls;
  if (price.count() > 0) {
    const auto end = std::chrono::steady_clock::now() + price;
    while (std::chrono::steady_clock::now() < end) {
    }
  }
  return result;
}

// Vectors, colours, quaternions and transforms: up to ten numbers.
struct Numbers {
  PyObject_HEAD double n[10];
};
PyTypeObject *vector_type = nullptr;
PyTypeObject *quat_type = nullptr;
PyTypeObject *transform_type = nullptr;

double *numbers_of(PyObject *self) {
  return reinterpret_cast<Numbers *>(self)->n;
}

PyObject *made(PyTypeObject *type, const double *from, size_t count) {
  PyObject *result = type->tp_alloc(type, 0);
  if (result) std::copy_n(from, count, numbers_of(result));
  return result;
}

/// Numbers, or vectors and quaternions, whose numbers are taken in their order.
int numbers_init(PyObject *self, PyObject *args, PyObject *) {
  double *at = numbers_of(self);
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(args); ++i) {
    PyObject *const arg = PyTuple_GET_ITEM(args, i);
    if (PyNumber_Check(arg)) {
      *at++ = PyFloat_AsDouble(arg);
    } else {
      at = std::copy_n(numbers_of(arg), Py_TYPE(arg) == quat_type ? 4 : 3, at);
    }
  }
  return PyErr_Occurred() ? -1 : 0;
}

template <size_t I>
PyObject *number_at(PyObject *self, void *) {
  return counted(PyFloat_FromDouble(numbers_of(self)[I]));
}

template <size_t N>
PyObject *to_tuple(PyObject *self, PyObject *) {
  PyObject *tuple = PyTuple_New(N);
  for (size_t i = 0; i < N; ++i) {
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(i), PyFloat_FromDouble(numbers_of(self)[i]));
  }
  return counted(tuple);
}

/// A column of the rotation's matrix.
template <int Axis>
PyObject *axis(PyObject *self, PyObject *) {
  const double *q = numbers_of(self);
  const double x = q[0], y = q[1], z = q[2], w = q[3];
  const double columns[3][3] = {
      {1 - 2 * (y * y + z * z), 2 * (x * y + w * z), 2 * (x * z - w * y)},
      {2 * (x * y - w * z), 1 - 2 * (x * x + z * z), 2 * (y * z + w * x)},
      {2 * (x * z + w * y), 2 * (y * z - w * x), 1 - 2 * (x * x + y * y)}};
  return counted(made(vector_type, columns[Axis], 3));
}

template <size_t First, size_t Count>
PyObject *part(PyObject *self, void *) {
  PyTypeObject *const type = Count == 4 ? quat_type : vector_type;
  return counted(made(type, numbers_of(self) + First, Count));
}

PyGetSetDef vector_parts[] = {{"x", &number_at<0>, nullptr, nullptr, nullptr},
                              {"y", &number_at<1>, nullptr, nullptr, nullptr},
                              {"z", &number_at<2>, nullptr, nullptr, nullptr},
                              {"w", &number_at<3>, nullptr, nullptr, nullptr},
                              {"r", &number_at<0>, nullptr, nullptr, nullptr},
                              {"g", &number_at<1>, nullptr, nullptr, nullptr},
                              {"b", &number_at<2>, nullptr, nullptr, nullptr},
                              {nullptr, nullptr, nullptr, nullptr, nullptr}};
PyGetSetDef transform_parts[] = {{"translation", &part<0, 3>, nullptr, nullptr, nullptr},
                                 {"rotation", &part<3, 4>, nullptr, nullptr, nullptr},
                                 {"scale3d", &part<7, 3>, nullptr, nullptr, nullptr},
                                 {nullptr, nullptr, nullptr, nullptr, nullptr}};
PyMethodDef vector_methods[] = {{"to_tuple", &to_tuple<3>, METH_NOARGS, nullptr},
                                {nullptr, nullptr, 0, nullptr}};
PyMethodDef quat_methods[] = {{"to_tuple", &to_tuple<4>, METH_NOARGS, nullptr},
                              {"get_axis_x", &axis<0>, METH_NOARGS, nullptr},
                              {"get_axis_y", &axis<1>, METH_NOARGS, nullptr},
                              {"get_axis_z", &axis<2>, METH_NOARGS, nullptr},
                              {nullptr, nullptr, 0, nullptr}};
PyMethodDef no_methods[] = {{nullptr, nullptr, 0, nullptr}};

py::object numbers_type(const char *name, PyMethodDef *methods, PyGetSetDef *parts) {
  PyType_Slot slots[] = {{Py_tp_new, reinterpret_cast<void *>(&PyType_GenericNew)},
                         {Py_tp_init, reinterpret_cast<void *>(&numbers_init)},
                         {Py_tp_methods, methods},
                         {Py_tp_getset, parts},
                         {0, nullptr}};
  PyType_Spec spec = {name, sizeof(Numbers), 0, Py_TPFLAGS_DEFAULT, slots};
  return own(PyType_FromSpec(&spec));
}

// Actors, components, assets.
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

/// A fresh object of the same value, as far as the editor makes one.
PyObject *fresh(PyObject *value) {
  if (PyUnicode_CheckExact(value)) {
    Py_ssize_t size = 0;
    const char *text = PyUnicode_AsUTF8AndSize(value, &size);
    return PyUnicode_FromStringAndSize(text, size);
  }
  if (PyFloat_CheckExact(value)) return PyFloat_FromDouble(PyFloat_AS_DOUBLE(value));
  if (PyList_CheckExact(value)) return PyList_GetSlice(value, 0, PyList_GET_SIZE(value));
  if (Py_TYPE(value) == transform_type) return made(transform_type, numbers_of(value), 10);
  if (Py_TYPE(value) == vector_type) return made(vector_type, numbers_of(value), 3);
  return Py_NewRef(value);
}

template <PyObject *Object::*Slot>
PyObject *hand_out(PyObject *self, PyObject *) {
  return counted(fresh(reinterpret_cast<Object *>(self)->*Slot));
}

PyObject *component_property(PyObject *self, void *) {
  return hand_out<&Object::component>(self, nullptr);
}

PyObject *get_property(PyObject *self, PyObject *name) {
  PyObject *value = PyDict_GetItemWithError(reinterpret_cast<Object *>(self)->props, name);
  if (value) return counted(fresh(value));
  if (!PyErr_Occurred()) PyErr_SetObject(PyExc_Exception, name);
  return nullptr;
}

/// set_actor_transform(transform, sweep, teleport)
PyObject *set_transform(PyObject *self, PyObject *args) {
  Py_XSETREF(reinterpret_cast<Object *>(self)->transform, Py_NewRef(PyTuple_GET_ITEM(args, 0)));
  return counted(Py_NewRef(Py_True));
}

PyObject *no(PyObject *, PyObject *) {
  return counted(Py_NewRef(Py_False));
}
PyObject *yes(PyObject *, PyObject *) {
  return counted(Py_NewRef(Py_True));
}

PyObject *nothing(PyObject *, PyObject *) {
  return counted(Py_NewRef(Py_None));
}

PyMethodDef object_methods[] = {
    {"get_path_name", &hand_out<&Object::path>, METH_NOARGS, nullptr},
    {"get_actor_label", &hand_out<&Object::label>, METH_NOARGS, nullptr},
    {"get_folder_path", &hand_out<&Object::folder>, METH_NOARGS, nullptr},
    {"get_actor_transform", &hand_out<&Object::transform>, METH_NOARGS, nullptr},
    {"set_actor_transform", &set_transform, METH_VARARGS, nullptr},
    {"get_component_by_class", &hand_out<&Object::component>, METH_O, nullptr},
    {"get_editor_property", &get_property, METH_O, nullptr},
    {"is_actor_being_destroyed", &no, METH_NOARGS, nullptr},
    {"get_attach_parent_actor", &nothing, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr}};

PyMemberDef object_members[] = {{"path", T_OBJECT, offsetof(Object, path), 0, nullptr},
                                {"label", T_OBJECT, offsetof(Object, label), 0, nullptr},
                                {"folder", T_OBJECT, offsetof(Object, folder), 0, nullptr},
                                {"transform", T_OBJECT, offsetof(Object, transform), 0, nullptr},
                                {"component", T_OBJECT, offsetof(Object, component), 0, nullptr},
                                {"props", T_OBJECT, offsetof(Object, props), 0, nullptr},
                                {nullptr, 0, 0, 0, nullptr}};
PyGetSetDef object_properties[] = {
    {"static_mesh_component", &component_property, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyType_Slot object_slots[] = {{Py_tp_new, reinterpret_cast<void *>(&object_new)},
                              {Py_tp_methods, object_methods},
                              {Py_tp_members, object_members},
                              {Py_tp_getset, object_properties},
                              {0, nullptr}};
PyType_Spec object_spec = {"bench_editor.Object", sizeof(Object), 0,
                           Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, object_slots};

// SystemLibrary: one object with the methods that a tick calls.
PyMethodDef library_methods[] = {{"is_valid", &yes, METH_O, nullptr},
                                 {"get_frame_count", &no, METH_NOARGS, nullptr},
                                 {nullptr, nullptr, 0, nullptr}};
PyType_Slot library_slots[] = {{Py_tp_methods, library_methods}, {0, nullptr}};
PyType_Spec library_spec = {"bench_editor.Library", sizeof(PyObject), 0, Py_TPFLAGS_DEFAULT,
                            library_slots};

/// The calls that every actor takes: alive, label, folder, where it stands, tags.
void touch_actor(py::handle actor) {
  call(unreal("SystemLibrary"_n), "is_valid"_n, actor);
  call(actor, "is_actor_being_destroyed"_n);
  call(actor, "get_actor_label"_n);
  str(call(actor, "get_folder_path"_n));
  py::object transform = call(actor, "get_actor_transform"_n);
  for (const Name name : {"translation"_n, "rotation"_n, "scale3d"_n}) {
    call(get(transform, name), "to_tuple"_n);
  }
  prop(actor, "tags"_n);
}

void touch_mesh(py::handle actor) {
  py::object component = get(actor, "static_mesh_component"_n);
  call(prop(component, "static_mesh"_n), "get_path_name"_n);
  prop(component, "override_materials"_n);
}

void bare_meshes(const py::list &actors) {
  for (py::handle actor : actors) {
    touch_actor(actor);
    touch_mesh(actor);
  }
}

/// As above, for those that have moved: their axes, too.
void bare_moved(const py::list &actors) {
  bare_meshes(actors);
  for (py::handle actor : actors) {
    py::object rotation = get(call(actor, "get_actor_transform"_n), "rotation"_n);
    for (const Name axis : {"get_axis_x"_n, "get_axis_y"_n, "get_axis_z"_n}) {
      call(call(rotation, axis), "to_tuple"_n);
    }
  }
}

/// The same, with what a class has under a name found beforehand.
void tight_meshes(const py::list &actors) {
  py::object library = unreal("SystemLibrary"_n);
  for (py::handle actor : actors) {
    call<"is_valid">(library, actor);
    call<"is_actor_being_destroyed">(actor);
    call<"get_actor_label">(actor);
    call<"get_folder_path">(actor);
    py::object transform = call<"get_actor_transform">(actor);
    call<"to_tuple">(get<"translation">(transform));
    call<"to_tuple">(get<"rotation">(transform));
    call<"to_tuple">(get<"scale3d">(transform));
    prop<"tags">(actor);
    py::object component = get<"static_mesh_component">(actor);
    call<"get_path_name">(prop<"static_mesh">(component));
    prop<"override_materials">(component);
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
  m.attr("Library") = own(PyType_FromSpec(&library_spec));
  m.attr("Vector") = numbers_type("bench_editor.Vector", vector_methods, vector_parts);
  m.attr("Quat") = numbers_type("bench_editor.Quat", quat_methods, vector_parts);
  m.attr("Transform") = numbers_type("bench_editor.Transform", no_methods, transform_parts);
  vector_type = reinterpret_cast<PyTypeObject *>(m.attr("Vector").ptr());
  quat_type = reinterpret_cast<PyTypeObject *>(m.attr("Quat").ptr());
  transform_type = reinterpret_cast<PyTypeObject *>(m.attr("Transform").ptr());
  m.def(
      "calls", [] { return calls; }, "How many calls there have been.");
  m.def(
      "set_price", [](long long ns) { price = std::chrono::nanoseconds(ns); },
      "What a call costs from now on, in nanoseconds.");
  m.def("bare_meshes", &bare_meshes);
  m.def("bare_moved", &bare_moved);
  m.def("tight_meshes", &tight_meshes);
  m.def("bare_lights", &bare_lights);
  m.def("bare_idle", &bare_idle);
}
