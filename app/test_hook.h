// The UI tests' view of the program: off unless the environment variable KTRN_TEST_DUMP_DIR names a
// folder. A test writes a step name into "request" in that folder; at the end of the next frame the
// program writes the text that every shown window displayed during that frame, then the clipboard's
// text under "[window clipboard]", to "<step>.txt" there (through Dear ImGui's logging) and deletes
// the request.
#pragma once

// True when the hook is on; the loop then wakes every 100 ms to look for requests.
bool TestHookInit(void);
void TestHookBeginFrame(void);  // after ImGui::NewFrame
void TestHookEndFrame(void);    // before ImGui::Render
