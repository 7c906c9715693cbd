# The printer file's local name starts with GetAppDataPath, which the key
# store's root-case tests change while they run a process named "orvane".
list(APPEND ZEL_TEST_PROPERTIES RESOURCE_LOCK zel_app_paths)
