/* The report sites of the plain utilities.
 *
 * A site is the number a failing step prints in its report line, "PATH: ERROR (at utils:SITE)"
 * or "utils:SITE: error (ERRNO)", so that a reader of a log can find the step. Sites are stable
 * report identifiers: logs, scripts and tests match them, so a site is never renumbered, never
 * given to another step, and never reused once its step is gone. Where one site stands for
 * several calls, its comment says so. The comment also tells which format and which path the
 * line shows: "path: source" is the first format with the source's path, "no path" the second
 * format.
 *
 * Numbers that no step here reports are held for steps this system does not have: 443 (creating
 * the empty file of a compressed source), 457 and 472 (allocating a resource-fork path), 468
 * (opening a resource fork) and 481 (copying a resource fork); and 551 (reading the source's
 * attributes again for the attribute list), since a copy reads each source's status once, at
 * UTILS_SITE_COPY_SOURCE_STATUS. */
#ifndef QZAPP_UTILS_REPORT_SITES_H
#define QZAPP_UTILS_REPORT_SITES_H

/* Deleting an object (delete.c). A failure beneath a folder prints the entry's own line first,
 * then one UTILS_SITE_DELETE_ENTRY line per enclosing folder. */
#define UTILS_SITE_DELETE_STATUS          145   /* status of the object, and an entry whose path does
                                                   not fit the path buffer (ENAMETOOLONG); path: the
                                                   object. The root folder is refused here (EPERM);
                                                   path: "/" */
#define UTILS_SITE_DELETE_OPEN_FOLDER     158   /* opening the folder, and a folder on another mount
                                                   than the named object (EXDEV); path: the folder */
#define UTILS_SITE_DELETE_PATH_BUFFER     163   /* allocating the entry path buffer; no path */
#define UTILS_SITE_DELETE_READ_ENTRY      176   /* reading a folder entry; path: the folder */
#define UTILS_SITE_DELETE_ENTRY           189   /* an entry could not be deleted; path: the entry */
#define UTILS_SITE_DELETE_REMOVE_FOLDER   193   /* removing the emptied folder; path: the folder */
#define UTILS_SITE_DELETE_UNLINK          195   /* removing a non-folder; path: the object */

/* Volume capabilities (volume_capabilities.c). */
#define UTILS_SITE_VOLUME_STATUS          222   /* status for the device number; path: the object */
#define UTILS_SITE_VOLUME_OPEN            234   /* opening the object for its volume; path: the object */
#define UTILS_SITE_VOLUME_FILE_SYSTEM     239   /* status of its file system; path: the object */
#define UTILS_SITE_VOLUME_QUERY           257   /* reading the mount table for a FUSE volume's
                                                   subtype; path: the mount table */

/* The copy engine (copy.c). A failure deep in a tree prints a chain, innermost first: for
 * example UTILS_SITE_DATA_WRITE, then UTILS_SITE_COPY_DATA, then UTILS_SITE_COPY_ENTRY for each
 * enclosing folder. */
#define UTILS_SITE_COPY_SOURCE_STATUS     309   /* opening the source and reading its status; path:
                                                   source. An entry whose path does not fit a path
                                                   buffer (ENAMETOOLONG); path: the one cut */
#define UTILS_SITE_COPY_MAKE_PIPE         330   /* creating a named pipe; path: destination */
#define UTILS_SITE_COPY_MAKE_NODE         340   /* creating a device node or socket; path: destination */
/* Each creating step (330, 340, 346, 428 and 660) also reports when the folder of the named
 * destination cannot be opened, and when what it created was replaced before it was opened. */
#define UTILS_SITE_COPY_MAKE_FOLDER       346   /* creating a folder, and a folder to be copied into
                                                   itself or below itself (EINVAL); path: destination */
#define UTILS_SITE_COPY_EXISTING_FOLDER   351   /* status of what is in the folder's way; path: destination */
#define UTILS_SITE_COPY_REPLACE_BY_FOLDER 359   /* replacing a non-folder by a folder; path: destination */
#define UTILS_SITE_COPY_FOLDER_STATUS     364   /* opening the destination folder and reading its
                                                   status; path: destination */
#define UTILS_SITE_COPY_OPEN_FOLDER       371   /* opening the source folder; path: source */
#define UTILS_SITE_COPY_SOURCE_BUFFER     376   /* allocating the source path buffer; no path */
#define UTILS_SITE_COPY_DESTINATION_BUFFER 379  /* allocating the destination path buffer; no path */
#define UTILS_SITE_COPY_READ_ENTRY        395   /* reading a folder entry; path: source folder */
#define UTILS_SITE_COPY_ENTRY             410   /* an entry failed without keep-going; no path */
#define UTILS_SITE_COPY_READ_LINK         421   /* reading a link's text, and allocating room for it;
                                                   path: source */
#define UTILS_SITE_COPY_MAKE_LINK         428   /* creating the link; path: destination */
#define UTILS_SITE_COPY_DATA              453   /* the data copy of a file failed; no path */
#define UTILS_SITE_COPY_UNSUPPORTED_TYPE  494   /* an object of no type the engine copies; path: source */

/* Extended attributes (metadata.c). Every failure among them ends with UTILS_SITE_XATTR. */
#define UTILS_SITE_XATTR                  499   /* closing report of any extended-attribute failure; no path */
#define UTILS_SITE_XATTR_LIST             819   /* listing the names: both calls, into the stack buffer
                                                   and for the list's size; no path */
#define UTILS_SITE_XATTR_ALLOCATE         827   /* allocating the list; no path */
#define UTILS_SITE_XATTR_LIST_AGAIN       832   /* listing again into the allocated list; no path */
#define UTILS_SITE_XATTR_COPY             845   /* reading or writing one attribute; no path */

/* Access control lists, owner and group (metadata.c). */
#define UTILS_SITE_ACL_READ               512   /* reading a list; path: source */
#define UTILS_SITE_ACL_SET                519   /* setting a list; path: destination */
#define UTILS_SITE_OWNER                  528   /* changing owner and group; path: destination */
#define UTILS_SITE_CAPABILITIES           538   /* a capability lookup yielded nothing, before the owner
                                                   change and before the attribute list; no path */

/* The attribute list (attributes.c). */
#define UTILS_SITE_ATTRIBUTES_READ        551   /* held: see the head of this file */
#define UTILS_SITE_ATTRIBUTES_LENGTH      582   /* an attribute carried was not read (EINVAL); path: source */
#define UTILS_SITE_ATTRIBUTES_WRITE       587   /* writing the attributes: all three calls, for the
                                                   modification time, the permission bits and the
                                                   immutable flag; path: destination */

/* The data of a regular file (datastream.c). */
#define UTILS_SITE_DATA_OPEN              660   /* opening the destination for the data; path: destination */
#define UTILS_SITE_DATA_READ              698   /* reading data; path: source */
#define UTILS_SITE_DATA_WRITE             703   /* writing data, and closing the destination after it
                                                   (datastream.c and copy.c); path: destination */

#endif /* QZAPP_UTILS_REPORT_SITES_H */
