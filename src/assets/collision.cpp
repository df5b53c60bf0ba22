#include "assets/collision.h"

namespace kestrix {

namespace {

constexpr std::array COLL_SHAPES{"AUTO", "HULL", "BOX", "SPHERE", "CAPSULE", "MESH", "NONE"};
// Convex pieces that AUTO fits, the corners of each, and how finely they are searched for.
constexpr int COLL_PIECES = 8;
constexpr int COLL_PIECE_VERTS = 16;
constexpr int COLL_PRECISION = 100000;
// Corners of the one piece of HULL.
constexpr int HULL_VERTS = 32;
// Triangles beyond which fitting pieces would take minutes.
constexpr long long COLL_MAX_TRIS = 200000;

py::dict record(const std::string &shape, bool sac) {
  return Record().set("shape"_n, shape).set("sac"_n, sac);
}

std::string shape_of(py::handle c) {
  const std::string shape = text(call(str(given_or(c, "shape"_n, "AUTO")), "upper"_n));
  return std::find(COLL_SHAPES.begin(), COLL_SHAPES.end(), shape) == COLL_SHAPES.end() ? "AUTO"
                                                                                       : shape;
}

py::object body_setup_of(py::handle sm) {
  return prop(sm, "body_setup"_n);
}

Name trace_flag(const std::string &shape, bool sac) {
  if (shape == "MESH") return "CTF_USE_COMPLEX_AS_SIMPLE"_n;
  return sac ? "CTF_USE_SIMPLE_AS_COMPLEX"_n : "CTF_USE_DEFAULT"_n;
}

py::object mesh_editor() {
  return subsystem("StaticMeshEditorSubsystem"_n);
}

void add_simple(py::handle sm, const std::string &shape) {
  py::object type = get(unreal("ScriptCollisionShapeType"_n), to_py(shape));
  call(mesh_editor(), "add_simple_collisions"_n, sm, type);
}

void fit_pieces(py::handle sm, int pieces, int vertices) {
  call(mesh_editor(), "set_convex_decomposition_collisions"_n, sm, pieces, vertices,
       COLL_PRECISION);
}

/// AUTO, but for a mesh that is too large for it.
std::string affordable(py::handle sm, const std::string &shape) {
  if (shape != "AUTO") return shape;
  const long long triangles = integer(call(sm, "get_num_triangles"_n, 0));
  if (triangles <= COLL_MAX_TRIS) return shape;
  _log(text(call(sm, "get_name"_n)) + ": " + std::to_string(triangles) +
       " triangles - one convex hull instead of fitted pieces (pick Mesh for an exact collision)");
  return "HULL";
}

void make_shapes(py::handle sm, const std::string &shape) {
  if (shape == "MESH" || shape == "NONE") return;
  if (shape != "AUTO" && shape != "HULL") return add_simple(sm, shape);
  fit_pieces(sm, shape == "AUTO" ? COLL_PIECES : 1,
             shape == "AUTO" ? COLL_PIECE_VERTS : HULL_VERTS);
  // A flat mesh may give no piece, and would be fallen through.
  if (_simple_shapes(sm) == 0) add_simple(sm, "BOX");
}

}  // namespace

py::dict collision_default() {
  return record("AUTO", false);
}

py::dict _coll_of(py::handle sm) {
  return attempt(
      [&] {
        const py::object tag =
            call(unreal("EditorAssetLibrary"_n), "get_metadata_tag"_n, sm, COLL_TAG);
        return truth(tag)
                   ? as_map(call(module("json"_n), "loads"_n, str(tag)), "a collision record")
                   : py::dict();
      },
      py::dict());
}

long long _simple_shapes(py::handle sm) {
  return attempt(
      [&]() -> long long {
        const py::object setup = body_setup_of(sm);
        if (!exists(setup)) return 0;
        const py::object shapes = prop(setup, "agg_geom"_n);
        long long count = 0;
        for (const Name kind :
             {"box_elems"_n, "sphere_elems"_n, "sphyl_elems"_n, "convex_elems"_n}) {
          attempt(
              [&] { count += check(static_cast<int>(PyObject_Size(prop(shapes, kind).ptr()))); });
        }
        return count;
      },
      0LL);
}

py::dict _apply_collision(py::handle sm, py::handle c) {
  const std::string shape = shape_of(c);
  const bool sac = flag(c, "sac"_n);
  const py::dict want = record(shape, sac);
  const py::object setup = body_setup_of(sm);
  if (exists(setup)) {
    call(setup, "modify"_n);
    set_prop(setup, "collision_trace_flag"_n,
             get(unreal("CollisionTraceFlag"_n), trace_flag(shape, sac)));
  }
  call(mesh_editor(), "remove_collisions"_n, sm);
  make_shapes(sm, affordable(sm, shape));
  const py::object json = get(module("json"_n), "dumps"_n)(want, py::arg("sort_keys") = true);
  call(unreal("EditorAssetLibrary"_n), "set_metadata_tag"_n, sm, COLL_TAG, json);
  return want;
}

void bind_collision(py::module_ &m) {
  m.attr("COLL_TAG") = COLL_TAG;
  m.attr("COLL_SHAPES") =
      std::apply([](const auto... words) { return py::make_tuple(words...); }, COLL_SHAPES);
  m.attr("COLL_DEFAULT") = collision_default();
  m.attr("COLL_PIECES") = COLL_PIECES;
  m.attr("COLL_PIECE_VERTS") = COLL_PIECE_VERTS;
  m.attr("COLL_PRECISION") = COLL_PRECISION;
  m.attr("COLL_MAX_TRIS") = COLL_MAX_TRIS;
  def(m, "_coll_of", &_coll_of, py::arg("sm").none(true));
  def(m, "_simple_shapes", &_simple_shapes, py::arg("sm").none(true));
  def(m, "_apply_collision", &_apply_collision, py::arg("sm"), py::arg("c"));
}

}  // namespace kestrix
