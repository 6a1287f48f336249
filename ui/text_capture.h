// Capture of the text that every shown window displays in one frame, for the UI tests' dumps.
// Dear ImGui's logging ends with each top-level window, so each window opens it again for itself
// (appending to the same file) right after its Begin.
#pragma once

void TextCaptureStart(const char *path);  // the file must not exist yet
void TextCaptureStop(void);
// After a Begin that returned true: the window's text from here on goes to the capture, headed by
// "[window NAME]".
void TextCaptureWindow(const char *name);
// True while a capture runs: windows that draw text without Dear ImGui's text calls (the source
// view) then log what they show themselves.
bool TextCaptureActive(void);
