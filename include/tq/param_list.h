/// @file
/// Parameter lists.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

TQ_API _tag_HTQPARAMLIST TQCreateParamList(void);
TQ_API _tag_HTQPARAMLIST TQReferenceHandle(_tag_HTQPARAMLIST list);
TQ_API _tag_TQ_ERROR TQCloseHandle(_tag_HTQPARAMLIST list);

TQ_API _tag_TQ_ERROR TQSetStringValue(_tag_HTQPARAMLIST list, const char* name, const char* value);
TQ_API _tag_TQ_ERROR TQSetInt32Value(_tag_HTQPARAMLIST list, const char* name, uint32_t value);
TQ_API _tag_TQ_ERROR TQSetInt64Value(_tag_HTQPARAMLIST list, const char* name, uint64_t value);
TQ_API _tag_TQ_ERROR TQSetBinaryValue(_tag_HTQPARAMLIST list, const char* name, const void* data,
                                      uint32_t size);
TQ_API _tag_TQ_ERROR TQSetBinaryItem(_tag_HTQPARAMLIST list, const char* name,
                                     const _tag_BINARYITEM* item);
TQ_API _tag_TQ_ERROR TQSetHandleValue(_tag_HTQPARAMLIST list, const char* name,
                                      _tag_HTQPARAMLIST value);
TQ_API _tag_TQ_ERROR TQSetStringArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                      const char* const* values);
TQ_API _tag_TQ_ERROR TQSetInt32Array(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                     const uint32_t* values);
TQ_API _tag_TQ_ERROR TQSetInt64Array(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                     const uint64_t* values);
TQ_API _tag_TQ_ERROR TQSetHandleArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                      const _tag_HTQPARAMLIST* values);
TQ_API _tag_TQ_ERROR TQSetBinaryArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                      const void* const* datas, const uint32_t* sizes);
TQ_API _tag_TQ_ERROR TQSetBinaryItemArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                          const _tag_BINARYITEM* items);

TQ_API const char* TQGetStringValue(_tag_HTQPARAMLIST list, const char* name);
TQ_API uint32_t TQGetInt32Value(_tag_HTQPARAMLIST list, const char* name);
TQ_API uint64_t TQGetInt64Value(_tag_HTQPARAMLIST list, const char* name);
TQ_API const _tag_BINARYVALUE* TQGetBinaryValue(_tag_HTQPARAMLIST list, const char* name);
TQ_API _tag_HTQPARAMLIST TQGetHandleValue(_tag_HTQPARAMLIST list, const char* name);
TQ_API uint32_t TQGetStringArray(_tag_HTQPARAMLIST list, const char* name, const char** out,
                                 uint32_t maximum, uint32_t first);
TQ_API uint32_t TQGetBinaryArray(_tag_HTQPARAMLIST list, const char* name,
                                 const _tag_BINARYVALUE** out, uint32_t maximum, uint32_t first);
TQ_API _tag_TQDWORDARRAY TQGetInt32Array(_tag_HTQPARAMLIST list, const char* name);
TQ_API _tag_TQQWORDARRAY TQGetInt64Array(_tag_HTQPARAMLIST list, const char* name);
TQ_API _tag_TQDWORDARRAY TQGetHandleArray(_tag_HTQPARAMLIST list, const char* name);

TQ_API uint32_t TQGetParamCount(_tag_HTQPARAMLIST list);
TQ_API uint32_t TQGetHandleSize(_tag_HTQPARAMLIST list);
TQ_API const _tag_TQPARAMINFO* TQGetFirstParam(_tag_HTQPARAMLIST list);
TQ_API const _tag_TQPARAMINFO* TQGetNextParam(_tag_HTQPARAMLIST list,
                                              const _tag_TQPARAMINFO* info);
TQ_API const _tag_TQPARAMINFO* TQParamByIndex(_tag_HTQPARAMLIST list, uint32_t index);
TQ_API const _tag_TQPARAMINFO* TQParamInfo(_tag_HTQPARAMLIST list, const char* name);
TQ_API _tag_HTQPARAMLIST TQGetHandleById(_tag_HTQPARAMLIST list, uint32_t index);

TQ_API _tag_TQ_ERROR TQRemoveValue(_tag_HTQPARAMLIST list, const char* name);
TQ_API const _tag_TQPARAMINFO* TQRemoveParamByInfo(_tag_HTQPARAMLIST list,
                                                   const _tag_TQPARAMINFO* info);
TQ_API _tag_TQ_ERROR TQRemoveAllValues(_tag_HTQPARAMLIST list);

#ifdef __cplusplus
} // extern "C"
#endif
