// The one mark of the plug-in's exported entry points.
#ifndef QVE_FOS_QVEFOS_EXPORT_H_
#define QVE_FOS_QVEFOS_EXPORT_H_

#define QVEFOS_EXPORT extern "C" __attribute__((visibility("default")))

#endif  // QVE_FOS_QVEFOS_EXPORT_H_
