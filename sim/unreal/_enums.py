"""Enumerations, printed as the editor prints them: <LightUnits.EV: 3>."""
import enum


class _Enum(enum.Enum):
    __str__ = enum.Enum.__repr__


def _enum(name, members, start=0):
    return _Enum(name, members, start=start, module="unreal")


AnimationMode = _enum(
    "AnimationMode", "ANIMATION_BLUEPRINT ANIMATION_SINGLE_NODE ANIMATION_CUSTOM_MODE")
AttachmentRule = _enum("AttachmentRule", "KEEP_RELATIVE KEEP_WORLD SNAP_TO_TARGET")
CollisionTraceFlag = _enum(
    "CollisionTraceFlag", "CTF_USE_DEFAULT CTF_USE_SIMPLE_AND_COMPLEX CTF_USE_SIMPLE_AS_COMPLEX "
    "CTF_USE_COMPLEX_AS_SIMPLE")
ComponentMobility = _enum("ComponentMobility", "STATIC STATIONARY MOVABLE")
PropertyAccessChangeNotifyMode = _enum("PropertyAccessChangeNotifyMode", "DEFAULT NEVER ALWAYS")
ScriptCollisionShapeType = _enum("ScriptCollisionShapeType", "BOX SPHERE CAPSULE")
ToolMenuInsertType = _enum("ToolMenuInsertType", "DEFAULT BEFORE AFTER FIRST")
LightUnits = _enum("LightUnits", "UNITLESS CANDELAS LUMENS EV NITS")
HorizTextAligment = _enum("HorizTextAligment", "EHTA_LEFT EHTA_CENTER EHTA_RIGHT")
VerticalTextAligment = _enum(
    "VerticalTextAligment", "EVRTA_TEXT_TOP EVRTA_TEXT_CENTER EVRTA_TEXT_BOTTOM EVRTA_QUAD_TOP")
AutoExposureMethod = _enum("AutoExposureMethod", "AEM_HISTOGRAM AEM_BASIC AEM_MANUAL")
LevelViewportType = _enum(
    "LevelViewportType",
    "LVT_ORTHO_XY LVT_ORTHO_XZ LVT_ORTHO_YZ LVT_PERSPECTIVE LVT_ORTHO_FREELOOK")
MultiBoxType = _enum("MultiBoxType", "MENU_BAR TOOL_BAR VERTICAL_TOOL_BAR "
                     "SLIM_HORIZONTAL_TOOL_BAR UNIFORM_TOOL_BAR MENU BUTTON_ROW")
MultiBlockType = _enum(
    "MultiBlockType", "NONE BUTTON_ROW EDITABLE_TEXT HEADING MENU_ENTRY SEPARATOR TOOL_BAR_BUTTON "
    "TOOL_BAR_COMBO_BUTTON WIDGET")
ToolMenuStringCommandType = _enum("ToolMenuStringCommandType", "COMMAND PYTHON CUSTOM")
SplineCoordinateSpace = _enum("SplineCoordinateSpace", "LOCAL WORLD")
SplinePointType = _enum(
    "SplinePointType", "LINEAR CURVE CONSTANT CURVE_CLAMPED CURVE_CUSTOM_TANGENT")
MaterialParameterAssociation = _enum(
    "MaterialParameterAssociation", "LAYER_PARAMETER BLEND_PARAMETER GLOBAL_PARAMETER")
GLTFMaterialBakeMode = _enum("GLTFMaterialBakeMode", "DISABLED SIMPLE USE_MESH_DATA")
GLTFTextureImageFormat = _enum("GLTFTextureImageFormat", "NONE PNG JPEG")
BlendMode = _enum("BlendMode", "BLEND_OPAQUE BLEND_MASKED BLEND_TRANSLUCENT BLEND_ADDITIVE BLEND_MODULATE "
                  "BLEND_ALPHA_COMPOSITE BLEND_ALPHA_HOLDOUT BLEND_TRANSLUCENT_COLORED_TRANSMITTANCE")
TextureFilter = _enum("TextureFilter", "TF_NEAREST TF_BILINEAR TF_TRILINEAR TF_DEFAULT")
TextureAddress = _enum("TextureAddress", "TA_WRAP TA_CLAMP TA_MIRROR")
TextureCompressionSettings = _enum(
    "TextureCompressionSettings", "TC_DEFAULT TC_NORMALMAP TC_MASKS TC_GRAYSCALE TC_DISPLACEMENTMAP "
    "TC_VECTOR_DISPLACEMENTMAP TC_HDR")
