// Capture of the text that every shown window displays in one frame, for the UI tests' dumps.
// Dear ImGui's logging ends with each top-level window, so each window opens it again for itself
// (appending to the same file) right after its Begin.
#pragma once

void TextCaptureStart(const char *path);  // the file must not exist yet
void TextCaptureStop(void);
// After a Begin that returned true: the window's text from here on goes to the capture, headed by
// "[window NAME]".
void TextCaptureWindow(const char *name);

// Whether a capture runs in this frame. Windows that draw text without Dear ImGui's text calls (the
// source view) then log what they show themselves; a window that lays out its own text lines (the
// watch windows' rows) suspends the capture of its widgets and writes its lines itself.
bool TextCaptureActive(void);
void TextCaptureSuspend(bool suspended);
void TextCaptureLine(const char *line);  // the line and a line feed, also while suspended
