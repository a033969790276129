// Stands in for a Firebase Analytics release that predates SetConsent.
namespace firebase::analytics {

__attribute__((visibility("default"))) void SetAnalyticsCollectionEnabled(bool) {}

}  // namespace firebase::analytics
