# Run as `cmake -P` in whisper.cpp's source folder before it is configured. Debian 12's Vulkan
# headers (1.3.239) predate VK_EXT_layer_settings, which ggml-vulkan uses only to ask the validation
# layer for its best-practice checks while debugging; with older headers the instance is created
# without that request, and everything else of the backend is as released.
set(file ggml/src/ggml-vulkan/ggml-vulkan.cpp)
file(READ ${file} source)
if(source MATCHES "#ifdef VK_EXT_layer_settings")
  return()
endif()
set(first "    VkBool32 enable_best_practice = layer_settings;\n")
set(last "    vk::InstanceCreateInfo instance_create_info(vk::InstanceCreateFlags{}, &app_info, layers, extensions, &layer_setting_info);\n")
string(FIND "${source}" "${first}" begin)
string(FIND "${source}" "${last}" end)
if(begin EQUAL -1 OR end EQUAL -1 OR end LESS begin)
  message(FATAL_ERROR "${file} no longer creates its Vulkan instance as cmake/PatchWhisperVulkan.cmake expects")
endif()
string(LENGTH "${last}" last_length)
math(EXPR block_length "${end} + ${last_length} - ${begin}")
string(SUBSTRING "${source}" ${begin} ${block_length} block)
string(REPLACE "${block}" "#ifdef VK_EXT_layer_settings\n${block}#else\n    vk::InstanceCreateInfo instance_create_info(vk::InstanceCreateFlags{}, &app_info, layers, extensions);\n#endif\n" source "${source}")
file(WRITE ${file} "${source}")
