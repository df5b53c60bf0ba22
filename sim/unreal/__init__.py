"""The editor's scripting module, as the link sees it. The editor itself is run by `sim`."""
from ._actors import (Actor, CameraActor, CineCameraActor, DirectionalLight, Info,
                      InstancedFoliageActor, Landscape, LandscapeProxy, LandscapeStreamingProxy,
                      Light, PointLight, PostProcessVolume, RectLight, SkeletalMeshActor, SkyLight,
                      SpotLight, StaticMeshActor, TextRenderActor, Volume, WorldPartitionHLOD)
from ._assets import (AssetData, Material, MaterialInstance, MaterialInstanceConstant,
                      MaterialInterface, Package, SkeletalMaterial, SkeletalMesh, StaticMaterial,
                      StaticMesh)
from ._components import (ActorComponent, CameraComponent, CameraFilmbackSettings,
                          CineCameraComponent, DirectionalLightComponent,
                          InstancedStaticMeshComponent, LightComponent, LightComponentBase,
                          LocalLightComponent, MeshComponent, PointLightComponent,
                          PostProcessSettings, PrimitiveComponent, RectLightComponent,
                          SceneComponent, SkeletalMeshComponent, SkyLightComponent,
                          SplineComponent, SpotLightComponent, StaticMeshComponent,
                          TextRenderComponent)
from ._enums import (AttachmentRule, AutoExposureMethod, ComponentMobility, HorizTextAligment,
                     LevelViewportType, LightUnits, MultiBlockType, MultiBoxType,
                     PropertyAccessChangeNotifyMode, SplinePointType, ToolMenuInsertType,
                     ToolMenuStringCommandType, VerticalTextAligment)
from ._level import World
from ._libraries import (ActorDesc, AssetRegistry, AssetRegistryHelpers, EditorAssetLibrary,
                         EditorLevelLibrary, EditorLoadingAndSavingUtils, Paths, SystemLibrary,
                         WorldPartitionBlueprintLibrary, find_object, load_asset, load_object,
                         log, log_error, log_warning, register_slate_post_tick_callback,
                         unregister_slate_post_tick_callback)
from ._math import Box, MathLibrary, Quat, Rotator, Transform, Vector
from ._menus import ToolMenu, ToolMenuEntry, ToolMenus
from ._object import Class, Object
from ._subsystems import (EditorActorSubsystem, EditorSubsystem, ImportSubsystem,
                          LevelEditorSubsystem, UnrealEditorSubsystem, get_editor_subsystem)
from ._transactions import ScopedEditorTransaction
from ._values import Array, Color, LinearColor, Map, Name, Text, TopLevelAssetPath
