#pragma once

// What the application bundle's information dictionary holds elsewhere: fixed facts about the program.
namespace BundleInfo {

inline constexpr char kBundleName[] = "Pelmora";
inline constexpr char kDevelopmentLocalization[] = "en";
inline constexpr char kVersion[] = PELMORA_VERSION;
inline constexpr char kHomePage[] = "https://pelmora.app/";

} // namespace BundleInfo
