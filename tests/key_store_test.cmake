# Every case shares the login's settings file, and the root case of the paths
# starts a process named "orvane" that changes what GetAppDataPath returns:
# these cases never run beside each other or beside the printer-file cases.
# (Runs from different build folders are kept apart by a file lock in the fixture.)
list(APPEND ZEL_TEST_PROPERTIES RESOURCE_LOCK zel_app_paths)
