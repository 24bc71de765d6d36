#include "cli/failure.h"

#include "graph/error.h"
#include "io/error.h"

#include <exception>
#include <new>

namespace tilegrid::cli {

Failure currentFailure()
{
    try {
        throw;
    } catch (graph::Cancelled const&) {
        return {kCancelled, "cancelled; files written by steps that had ended stay."};
    } catch (graph::UsageError const& error) {
        return {kUsage, error.what()};
    } catch (io::InputError const& error) {
        return {kInput, error.what()};
    } catch (graph::NodeError const& error) {
        return {kNode, error.what()};
    } catch (std::bad_alloc const&) {
        return {kInput, "there is not enough memory."};
    } catch (std::exception const& error) {
        return {kNode, error.what()};
    }
}

}  // namespace tilegrid::cli
