# The render port's GPU features: lookup table requests, the overlay, snapshot
# files and the final-frame recorder, and the stages that hook them into the
# port. Portable rules everywhere; Direct3D, GDI, WIC, Media Foundation and
# the video processor on Windows only.
kiv_sources(gpu_lut_state.cpp gpu_osd_items.cpp gpu_osd_canvas.cpp snapshot_image.cpp gpu_recorder.cpp
            render_gpu_stages.cpp ../api/kiv_api_render_gpu.cpp)
kiv_windows_sources(gpu_osd_raster_win.cpp snapshot_file_win.cpp gpu_record_sink_win.cpp render_gpu_stages_win.cpp)
kiv_native_sources(gpu_osd_raster_none.cpp snapshot_file_none.cpp gpu_record_sink_none.cpp render_gpu_stages_none.cpp)
kiv_system_libraries(gdi32 windowscodecs ole32 d3d11 d3dcompiler dxguid mfplat mfreadwrite mfuuid)
kiv_exports(KIV_SetVideoRenderLutConfig KIV_LoadVideoRenderCubeFile KIV_ClearVideoRenderLut KIV_SaveVideoRenderSnapshot
            KIV_AddVideoRenderGpuOsdText KIV_AddVideoRenderGpuOsdImage KIV_AddVideoRenderGpuOsdRect
            KIV_UpdateVideoRenderGpuOsdText KIV_RemoveVideoRenderGpuOsdItem KIV_ClearVideoRenderGpuOsd
            KIV_StartVideoRenderGpuRecord KIV_StopVideoRenderGpuRecord KIV_IsVideoRenderGpuRecording)
