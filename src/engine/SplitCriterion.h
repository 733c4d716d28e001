#pragma once
// The model-selection criterion of a test split: whether a region is better
// described by k Gaussian classes under a Potts prior than by one Gaussian.

class PottsWS;

namespace dhc {

// Criterion in nats of the split of w into k children (their labels on w's
// map, w->beta the split's Potts beta).  Each pixel's likelihood under the
// split is the mixture of the children's Gaussians weighted by the Potts
// conditional probabilities of the classes given the pixel's 8 neighbours'
// labels in the split; the criterion is the log-likelihood of the pixels
// under it less that under w's own Gaussian, less half ln N for each parameter
// the split adds (a mean and a covariance per class beyond the first, and
// beta).  ICL also subtracts the entropy of the pixels' class posteriors
// under the same model, which a split through one class pays.  Covariances
// carry 1/12 on the diagonal, the variance of rounding values to integers,
// so that a class of few distinct values does not gain without bound.
// -infinity when a covariance is singular or a child empty.  Sums run over
// fixed blocks of pixels joined in order: the same bits for every number of
// threads.
double splitCriterion(const PottsWS& w, int k, PottsWS* const* children, bool icl);

}  // namespace dhc
