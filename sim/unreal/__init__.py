"""The editor's scripting module, as the link sees it. The editor itself is run by `sim`."""
from ._actors import (Actor, CameraActor, CineCameraActor, DirectionalLight, Info,
                      Light, PointLight, PostProcessVolume, RectLight, SkeletalMeshActor, SkyLight,
                      SpotLight, StaticMeshActor, TextRenderActor, Volume, WorldPartitionHLOD)
from ._animation import AnimationAsset, AnimSequence, AnimSequenceBase, Skeleton
from ._collision import (BodySetup, KAggregateGeom, KBoxElem, KConvexElem, KSphereElem,
                         KSphylElem)
from ._components import (ActorComponent, CameraComponent, CameraFilmbackSettings,
                          CineCameraComponent, DirectionalLightComponent,
                          LightComponent, LightComponentBase,
                          LocalLightComponent, MeshComponent, PointLightComponent,
                          PostProcessSettings, PrimitiveComponent, RectLightComponent,
                          SceneComponent, SingleAnimationPlayData, SkeletalMeshComponent, SkyLightComponent,
                          SpotLightComponent, StaticMeshComponent,
                          TextRenderComponent)
from ._enums import (AnimationMode, AttachmentRule, CollisionTraceFlag, ScriptCollisionShapeType, AutoExposureMethod, ComponentMobility, HorizTextAligment,
                     GLTFMaterialBakeMode, GLTFTextureImageFormat,
                     LevelViewportType, LightUnits, MaterialParameterAssociation, BlendMode, TextureAddress,
                     TextureCompressionSettings, TextureFilter, MultiBlockType, MultiBoxType,
                     PropertyAccessChangeNotifyMode, SplineCoordinateSpace, SplinePointType, ToolMenuInsertType,
                     ToolMenuStringCommandType, VerticalTextAligment)
from ._exporting import (AssetExportTask, Exporter, FbxExportOption, GLTFExporter, GLTFExportMessages, GLTFExportOptions,
                         GLTFMaterialBakeSize)
from ._foliage import InstancedFoliageActor, InstancedStaticMeshComponent
from ._importing import AssetImportTask, AssetTools, AssetToolsHelpers
from ._landscape import (Landscape, LandscapeComponent, LandscapeProxy,
                         LandscapeStreamingProxy)
from ._level import World
from ._libraries import (ActorDesc, AssetRegistry, AssetRegistryHelpers, EditorAssetLibrary,
                         EditorLevelLibrary, EditorLoadingAndSavingUtils, Paths, SystemLibrary,
                         WorldPartitionBlueprintLibrary, find_object, load_asset, load_object,
                         log, log_error, log_warning, register_slate_post_tick_callback,
                         unregister_slate_post_tick_callback)
from ._materials import (DisplacementScaling, Material, MaterialEditingLibrary, MaterialInstance,
                         MaterialInstanceBasePropertyOverrides, MaterialInstanceConstant,
                         MaterialInstanceConstantFactoryNew, MaterialInterface, MaterialParameterInfo,
                         ScalarParameterValue, TextureParameterValue, VectorParameterValue)
from ._math import Box, MathLibrary, Quat, Rotator, Transform, Vector
from ._menus import ToolMenu, ToolMenuEntry, ToolMenus
from ._mesh_editing import StaticMeshEditorSubsystem
from ._meshes import SkeletalMaterial, SkeletalMesh, StaticMaterial, StaticMesh
from ._object import Class, Object, Package
from ._packages import AssetData, AssetRegistryDependencyOptions
from ._physics import (BodyInstance, Factory, PhysicalMaterial,
                       PhysicalMaterialFactoryNew)
from ._splines import SplineComponent
from ._subsystems import (EditorActorSubsystem, EditorAssetSubsystem, EditorSubsystem, ImportSubsystem,
                          LevelEditorSubsystem, UnrealEditorSubsystem, get_editor_subsystem)
from ._textures import Texture, Texture2D
from ._transactions import ScopedEditorTransaction
from ._values import Array, Color, LinearColor, Map, Name, Text, TopLevelAssetPath
