#pragma once

namespace corvex {

class AppDelegate;

// With CORVEX_SCREENSHOT=PATH set, saves the window as a PNG after CORVEX_SCREENSHOT_DELAY
// milliseconds (3000 by default), for documentation and for checking a build by eye.
void scheduleScreenshotFromEnvironment(AppDelegate& delegate);

} // namespace corvex
