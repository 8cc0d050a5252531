#pragma once

#include <csetjmp>
#include <cstdio>  // jpeglib.h needs FILE declared first

#include <jpeglib.h>

namespace quill_base_detail {

// libjpeg reports fatal errors through error_exit, which must not return: the handler jumps back to
// the setjmp of the caller instead of letting the default handler end the process. Warnings are
// counted, never printed. The caller sets up `jump` before any libjpeg call that can fail, and
// nothing between that setjmp and the call may own memory (a longjmp skips destructors).
struct JpegErrors {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

inline void onJpegFatalError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<JpegErrors*>(info->err)->jump, 1);
}

inline void onJpegMessage(j_common_ptr info, int level) {
  if (level < 0) {
    info->err->num_warnings += 1;
  }
}

inline jpeg_error_mgr* useJpegErrors(JpegErrors& errors) {
  jpeg_std_error(&errors.base);
  errors.base.error_exit = onJpegFatalError;
  errors.base.emit_message = onJpegMessage;
  return &errors.base;
}

}  // namespace quill_base_detail
