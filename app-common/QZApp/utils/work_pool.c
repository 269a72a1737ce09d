/* The threads of a parallel copy or deletion: a queue of items, worked by the pool's threads and
 * by every thread that waits for a group of items (which works the queue meanwhile instead of
 * sleeping, so that a wait can never hold up the items it waits for). */
#include "utils_private.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

struct work_pool {
    pthread_mutex_t lock;
    pthread_cond_t work;       /* an item was queued, or the pool stops */
    pthread_cond_t done;       /* an item was finished */
    struct work_item *first, *last;
    unsigned queued;
    unsigned threads;          /* the caller's included */
    unsigned started;
    bool stopping;
    pthread_t workers[];
};

/* Takes the next item (the pool's lock held), or null. */
static struct work_item *take(struct work_pool *pool)
{
    struct work_item *item = pool->first;
    if (item) {
        pool->first = item->next;
        if (!pool->first)
            pool->last = NULL;
        pool->queued--;
    }
    return item;
}

/* Runs an item with the lock released (an item of a stopped group only gives up), then counts
 * it done. The lock is held before and after. */
static void run(struct work_pool *pool, struct work_item *item)
{
    struct work_group *group = item->group;
    const bool cancelled = group->stopping;
    pthread_mutex_unlock(&pool->lock);
    item->run(item, cancelled);   /* frees the item */
    pthread_mutex_lock(&pool->lock);
    if (--group->pending == 0)
        pthread_cond_broadcast(&pool->done);
}

static void *worker(void *argument)
{
    struct work_pool *pool = argument;
    pthread_mutex_lock(&pool->lock);
    for (;;) {
        struct work_item *item = take(pool);
        if (item)
            run(pool, item);
        else if (pool->stopping)
            break;
        else
            pthread_cond_wait(&pool->work, &pool->lock);
    }
    pthread_mutex_unlock(&pool->lock);
    return NULL;
}

struct work_pool *utils_pool_start(unsigned threads)
{
    if (threads > UTILS_POOL_THREADS_MAX)
        threads = UTILS_POOL_THREADS_MAX;
    if (threads < 2)
        return NULL;
    struct work_pool *pool = calloc(1, sizeof *pool + (threads - 1) * sizeof(pthread_t));
    if (!pool)
        return NULL;
    pthread_mutex_init(&pool->lock, NULL);
    pthread_cond_init(&pool->work, NULL);
    pthread_cond_init(&pool->done, NULL);
    pool->threads = threads;
    for (unsigned i = 0; i + 1 < threads; i++) {
        if (pthread_create(&pool->workers[i], NULL, worker, pool) != 0)
            break;   /* fewer threads; the caller's always works */
        pool->started++;
    }
    return pool;
}

void utils_pool_stop(struct work_pool *pool)
{
    if (!pool)
        return;
    const int saved = errno;
    pthread_mutex_lock(&pool->lock);
    pool->stopping = true;
    pthread_cond_broadcast(&pool->work);
    pthread_mutex_unlock(&pool->lock);
    for (unsigned i = 0; i < pool->started; i++)
        pthread_join(pool->workers[i], NULL);
    pthread_cond_destroy(&pool->done);
    pthread_cond_destroy(&pool->work);
    pthread_mutex_destroy(&pool->lock);
    free(pool);
    errno = saved;
}

bool utils_pool_wants_work(struct work_pool *pool)
{
    pthread_mutex_lock(&pool->lock);
    /* Enough queued to keep every thread busy; beyond that the walker does the work itself. */
    const bool wanted = pool->queued < 2 * pool->threads;
    pthread_mutex_unlock(&pool->lock);
    return wanted;
}

void utils_pool_submit(struct work_group *group, struct work_item *item)
{
    struct work_pool *pool = group->pool;
    item->group = group;
    item->next = NULL;
    pthread_mutex_lock(&pool->lock);
    group->pending++;
    if (pool->last)
        pool->last->next = item;
    else
        pool->first = item;
    pool->last = item;
    pool->queued++;
    pthread_cond_signal(&pool->work);
    pthread_mutex_unlock(&pool->lock);
}

void utils_group_wait(struct work_group *group)
{
    struct work_pool *pool = group->pool;
    if (!pool)
        return;
    const int saved = errno;
    pthread_mutex_lock(&pool->lock);
    while (group->pending > 0) {
        struct work_item *item = take(pool);
        if (item)
            run(pool, item);
        else
            pthread_cond_wait(&pool->done, &pool->lock);
    }
    pthread_mutex_unlock(&pool->lock);
    errno = saved;
}

void utils_group_fail(struct work_group *group, int error, bool stop)
{
    pthread_mutex_lock(&group->pool->lock);
    if (!group->failed) {
        group->failed = true;
        group->error = error;
    }
    group->stopping = group->stopping || stop;
    pthread_mutex_unlock(&group->pool->lock);
}

bool utils_group_stopping(struct work_group *group)
{
    if (!group->pool)
        return false;
    pthread_mutex_lock(&group->pool->lock);
    const bool stopping = group->stopping;
    pthread_mutex_unlock(&group->pool->lock);
    return stopping;
}

bool utils_group_finish(struct work_group *group, int read_error)
{
    utils_group_wait(group);
    if (group->pool) {
        pthread_mutex_lock(&group->pool->lock);
        const bool failed = group->failed;
        const int error = group->error;
        pthread_mutex_unlock(&group->pool->lock);
        if (failed) {
            errno = error;
            return false;
        }
    }
    errno = read_error;
    return read_error == 0;
}

void utils_group_abandon(struct work_group *group)
{
    if (!group->pool)
        return;
    const int own = errno;
    utils_group_fail(group, own, true);
    utils_group_wait(group);
    errno = own;
}
