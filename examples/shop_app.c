/* shop_app: a small multi-threaded web shop that reports its requests to the agent through the
 * public SDK only (include/qv_sdk.h, libqvagent.so). Usage: shop_app [threads] [seconds] [linger]
 * See the README's "The example application" for what it shows on a collector. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <qv_sdk.h>

#define MAX_THREADS 64
#define MAX_SECONDS 3600

static volatile sig_atomic_t g_stop = 0;
static struct timespec g_deadline;

typedef struct {
    pthread_t thread;
    int index;
    unsigned seed;
    long requests; /* requests served */
    long traced;   /* requests the agent traced (qv_bt_begin gave a handle) */
    long declined; /* failed payments */
    long slow;     /* requests that hit a slow backend on purpose */
} worker_t;

static void on_signal(int sig) {
    (void)sig;
    g_stop = 1;
}

static void pause_ms(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR && !g_stop) {
    }
}

static int past_deadline(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > g_deadline.tv_sec ||
           (now.tv_sec == g_deadline.tv_sec && now.tv_nsec >= g_deadline.tv_nsec);
}

static int chance(worker_t* w, int percent) {
    return (int)(rand_r(&w->seed) % 100u) < percent;
}

static long between(worker_t* w, long lo, long hi) {
    return lo + (long)(rand_r(&w->seed) % (unsigned)(hi - lo + 1));
}

/* The helpers skip the SDK for a request the agent does not trace (no handle): that is what an
 * extension does before the collector has started a test run. */
static void enter(qvBTHandle bt, char* method) {
    if (bt != NULL) qv_method_entry(bt, method);
}

static void leave(qvBTHandle bt, char* method) {
    if (bt != NULL) qv_method_exit(bt, method);
}

static void db_call(qvBTHandle bt, char* host, char* sql, long ms) {
    qvIPCallOutHandle ip = bt != NULL ? qv_ip_db_callout_begin(bt, host, sql) : NULL;
    pause_ms(ms);
    if (ip != NULL) qv_ip_db_callout_end(bt, ip);
}

static void http_call(qvBTHandle bt, char* host, char* url, long ms) {
    qvIPCallOutHandle ip = bt != NULL ? qv_ip_http_callout_begin(bt, host, url) : NULL;
    pause_ms(ms);
    if (ip != NULL) qv_ip_http_callout_end(bt, ip);
}

static void catalog_list(worker_t* w, qvBTHandle bt) {
    enter(bt, "CatalogController::list");
    enter(bt, "CatalogService::findProducts");
    db_call(bt, "catalog-db:5432",
            "SELECT id, name, price FROM product WHERE category = ? ORDER BY name LIMIT 50",
            between(w, 2, 8));
    enter(bt, "PriceService::applyDiscounts");
    pause_ms(1);
    leave(bt, "PriceService::applyDiscounts");
    leave(bt, "CatalogService::findProducts");
    enter(bt, "View::render");
    pause_ms(2);
    leave(bt, "View::render");
    leave(bt, "CatalogController::list");
}

static void search_products(worker_t* w, qvBTHandle bt) {
    int slow = chance(w, 10);
    enter(bt, "SearchController::query");
    /* Now and then the search cluster takes its time. */
    http_call(bt, "search.internal:9200", "/products/_search",
              slow ? between(w, 500, 700) : between(w, 8, 25));
    enter(bt, "View::render");
    pause_ms(1);
    leave(bt, "View::render");
    leave(bt, "SearchController::query");
    w->slow += slow;
}

static void cart_add(worker_t* w, qvBTHandle bt) {
    enter(bt, "CartController::add");
    enter(bt, "CartService::addItem");
    db_call(bt, "catalog-db:5432", "SELECT id, price, stock FROM product WHERE id = ?", between(w, 1, 4));
    db_call(bt, "cart-db:5432", "INSERT INTO cart_item (cart_id, product_id, qty) VALUES (?, ?, ?)",
            between(w, 2, 6));
    enter(bt, "InventoryClient::reserve");
    http_call(bt, "inventory.internal:8080", "/api/v1/reserve", between(w, 5, 20));
    leave(bt, "InventoryClient::reserve");
    leave(bt, "CartService::addItem");
    leave(bt, "CartController::add");
}

static void checkout_pay(worker_t* w, qvBTHandle bt) {
    int declined = chance(w, 20);
    int slow = !declined && chance(w, 10);
    enter(bt, "CheckoutController::pay");
    enter(bt, "OrderService::create");
    db_call(bt, "orders-db:5432", "INSERT INTO orders (customer_id, total, status) VALUES (?, ?, 'NEW')",
            between(w, 2, 6));
    db_call(bt, "orders-db:5432",
            "INSERT INTO order_line (order_id, product_id, qty, price) VALUES (?, ?, ?, ?)",
            between(w, 2, 6));
    leave(bt, "OrderService::create");
    enter(bt, "PaymentClient::charge");
    http_call(bt, "payments.example.com:443", "/v1/charges",
              slow ? between(w, 1200, 1500) : between(w, 40, 120));
    if (declined) {
        /* The SDK closes every method with status 200 and keeps no error state (qv_bt_add_error
         * is accepted and does nothing), so a failure shows as the path it takes: the decline
         * handler, one retried charge and the error page. */
        enter(bt, "PaymentClient::handleDeclined");
        http_call(bt, "payments.example.com:443", "/v1/charges/retry", between(w, 40, 120));
        leave(bt, "PaymentClient::handleDeclined");
        if (bt != NULL) qv_bt_add_error(bt, 3, "payment declined", 1);
    }
    leave(bt, "PaymentClient::charge");
    if (declined) {
        enter(bt, "CheckoutController::renderError");
        pause_ms(1);
        leave(bt, "CheckoutController::renderError");
    }
    leave(bt, "CheckoutController::pay");
    w->declined += declined;
    w->slow += slow;
}

/* The repository cannot carry the handle (think of a callback registered elsewhere), so the
 * controller stores it under the request id and the repository fetches it. */
static void load_order_lines(char* request_id, int order) {
    qvBTHandle bt = qv_bt_get(request_id);
    (void)order;
    enter(bt, "OrderRepository::loadLines");
    db_call(bt, "orders-db:5432", "SELECT product_id, qty, price FROM order_line WHERE order_id = ?", 2);
    leave(bt, "OrderRepository::loadLines");
}

static void account_orders(worker_t* w, qvBTHandle bt) {
    char request_id[64];
    int order;
    snprintf(request_id, sizeof(request_id), "req-%d-%ld", w->index, w->requests);
    if (bt != NULL) qv_bt_store(bt, request_id);
    enter(bt, "AccountController::orders");
    enter(bt, "OrderRepository::findByCustomer");
    db_call(bt, "orders-db:5432",
            "SELECT id, total, status FROM orders WHERE customer_id = ? ORDER BY created DESC LIMIT 3",
            between(w, 3, 9));
    for (order = 0; order < 3; order++) load_order_lines(request_id, order);
    leave(bt, "OrderRepository::findByCustomer");
    leave(bt, "AccountController::orders");
}

static void serve_one(worker_t* w) {
    int pick = (int)(rand_r(&w->seed) % 100u);
    char* url;
    void (*handler)(worker_t*, qvBTHandle);
    qvBTHandle bt;
    if (pick < 30) {
        url = "/shop/catalog/list";
        handler = catalog_list;
    } else if (pick < 50) {
        url = "/shop/search/products";
        handler = search_products;
    } else if (pick < 75) {
        url = "/shop/cart/add";
        handler = cart_add;
    } else if (pick < 90) {
        url = "/shop/checkout/pay";
        handler = checkout_pay;
    } else {
        url = "/shop/account/orders";
        handler = account_orders;
    }
    /* The URL names the business transaction (by default its first two segments). */
    bt = qv_bt_begin(url, NULL);
    handler(w, bt);
    if (bt != NULL) {
        qv_bt_end(bt);
        w->traced++;
    }
    w->requests++;
}

static void* worker_main(void* arg) {
    worker_t* w = arg;
    while (!g_stop && !past_deadline()) {
        serve_one(w);
        pause_ms(between(w, 5, 25)); /* the next client's think time */
    }
    return NULL;
}

static int parse_arg(const char* text, long lo, long hi, long* out) {
    char* end = NULL;
    long v;
    errno = 0;
    v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return 0;
    *out = v;
    return 1;
}

int main(int argc, char** argv) {
    static worker_t workers[MAX_THREADS];
    long threads = 4, seconds = 10, linger = 0;
    long requests = 0, traced = 0, declined = 0, slow = 0;
    struct sigaction sa;
    int i, started = 0;

    if (argc > 4 || (argc > 1 && !parse_arg(argv[1], 1, MAX_THREADS, &threads)) ||
        (argc > 2 && !parse_arg(argv[2], 1, MAX_SECONDS, &seconds)) ||
        (argc > 3 && !parse_arg(argv[3], 0, MAX_SECONDS, &linger))) {
        fprintf(stderr,
                "usage: %s [threads 1-%d, default 4] [seconds 1-%d, default 10] [linger seconds, default 0]\n"
                "Serves shop requests on <threads> threads for <seconds> after the agent's start-up\n"
                "pause, then waits up to <linger> seconds (or until SIGINT/SIGTERM) so the agent can\n"
                "report, and ends. QVHOME names the agent home.\n",
                argv[0], MAX_THREADS, MAX_SECONDS);
        return 2;
    }
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);

    printf("shop_app: starting the agent (qv_init pauses 30 s while it connects)\n");
    fflush(stdout);
    qv_init();

    printf("shop_app: serving on %ld threads for %ld s\n", threads, seconds);
    fflush(stdout);
    clock_gettime(CLOCK_MONOTONIC, &g_deadline);
    g_deadline.tv_sec += seconds;
    for (i = 0; i < threads; i++) {
        workers[i].index = i;
        workers[i].seed = (unsigned)(time(NULL) ^ (i * 7919));
        if (pthread_create(&workers[i].thread, NULL, worker_main, &workers[i]) != 0) {
            fprintf(stderr, "shop_app: cannot start thread %d\n", i);
            break;
        }
        started++;
    }
    for (i = 0; i < started; i++) {
        pthread_join(workers[i].thread, NULL);
        requests += workers[i].requests;
        traced += workers[i].traced;
        declined += workers[i].declined;
        slow += workers[i].slow;
    }
    printf(
        "shop_app: traffic done: %ld requests (%ld traced), %ld declined payments, %ld slow backend calls\n",
        requests, traced, declined, slow);
    fflush(stdout);

    for (i = 0; i < linger * 10 && !g_stop; i++) pause_ms(100);
    qv_free();
    printf("shop_app: done\n");
    return started == threads ? 0 : 1;
}
