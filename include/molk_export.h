#ifndef MOLK_EXPORT_H
#define MOLK_EXPORT_H

/* Everything in libmolkutil is hidden unless marked MOLK_API. */
#if defined(MOLK_BUILDING_LIBRARY)
#define MOLK_API __attribute__((visibility("default")))
#else
#define MOLK_API
#endif

#endif /* MOLK_EXPORT_H */
